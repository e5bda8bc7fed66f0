#!/bin/sh
# Announces itself, then waits; SIGTERM ends it. Gives up after ~20 s.
echo ready
i=0
while [ $i -lt 400 ]; do
  sleep 0.05
  i=$((i + 1))
done
exit 0
