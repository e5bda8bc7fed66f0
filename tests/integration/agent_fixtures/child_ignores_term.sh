#!/bin/sh
# The agent dies of SIGTERM, but a child of it shrugs the signal off and
# holds the output open. The child says its process id, then the agent
# waits for it. The child gives up after ~20 s.
sh -c 'trap "" TERM; echo "child $$"; i=0; while [ $i -lt 400 ]; do sleep 0.05; i=$((i + 1)); done' &
wait
