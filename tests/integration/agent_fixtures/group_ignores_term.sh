#!/bin/sh
# The agent and a child of it both shrug off SIGTERM; only SIGKILL ends
# them. The child says its process id. Both give up after ~20 s.
trap 'echo "term ignored"' TERM
sh -c 'trap "" TERM; echo "child $$"; i=0; while [ $i -lt 400 ]; do sleep 0.05; i=$((i + 1)); done' &
echo ready
i=0
while [ $i -lt 400 ]; do
  sleep 0.05
  i=$((i + 1))
done
exit 0
