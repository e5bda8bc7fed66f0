#!/bin/sh
# A login shell that knows one command: -lc "command -v claude". It prints
# the content of the file "answer" beside it, after waiting while a file
# "hold" is there (up to ~20 s; it prints nothing when it gives up). It
# writes to standard error too, which is never read, and its scheduling
# niceness to the file "niceness" beside it.
here=$(dirname "$0")
[ "$1" = "-lc" ] && [ "$2" = "command -v claude" ] || exit 64
nice > "$here/niceness"
echo "profile noise" >&2
i=0
while [ -e "$here/hold" ]; do
  i=$((i + 1))
  [ $i -lt 400 ] || exit 1
  sleep 0.05
done
[ -e "$here/answer" ] && cat "$here/answer"
exit 0
