#!/bin/sh
# Notes SIGTERM and carries on; ends with status 3 once "go" exists.
trap 'echo "term ignored"' TERM
echo ready
i=0
while [ ! -e go ] && [ $i -lt 400 ]; do
  sleep 0.05
  i=$((i + 1))
done
echo "still here"
exit 3
