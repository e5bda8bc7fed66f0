#!/bin/sh
# Lots of standard error interleaved with lots of output: more than a pipe
# holds on each, so a reader that drains one pipe only until the end would
# leave this agent stuck.
i=0
while [ $i -lt 3000 ]; do
  printf 'out %04d ................................................................................\n' $i
  printf 'err %04d ................................................................................\n' $i >&2
  i=$((i + 1))
done
exit 4
