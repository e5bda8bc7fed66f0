#!/bin/sh
# Leaves a process running in the background that holds the agent's output
# and error open, says its process id, and exits with status 5.
sleep 30 &
echo "grandchild $!"
echo "exiting"
exit 5
