#!/bin/sh
# 50 MiB of standard error: the line "é€😀abc" (13 bytes with its line feed)
# 4032984 times, then "the end now"; one line of output; status 6.
yes 'é€😀abc' | head -c 52428792 >&2
printf 'the end now\n' >&2
echo "flooded"
exit 6
