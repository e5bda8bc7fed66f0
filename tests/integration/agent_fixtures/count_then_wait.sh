#!/bin/sh
# Prints "line 1" to "line 500" and "ready", then waits to be killed.
# Gives up after ~20 s.
i=1
while [ $i -le 500 ]; do
  echo "line $i"
  i=$((i + 1))
done
echo ready
i=0
while [ $i -lt 400 ]; do
  sleep 0.05
  i=$((i + 1))
done
exit 0
