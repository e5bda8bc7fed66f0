#!/bin/sh
# 40 MiB of output without a line feed: "é€😀abc" (12 bytes) over and over,
# 3495253 times, then the end of the output.
yes 'é€😀abc' | tr -d '\n' | head -c 41943036
