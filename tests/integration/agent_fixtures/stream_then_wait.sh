#!/bin/sh
# Prints a line, waits until the test creates "go-$1" in the working folder,
# then prints a last line without a line break. $2, when given, is the exit
# status.
printf 'first of %s\n' "$1"
i=0
while [ ! -e "go-$1" ] && [ $i -lt 400 ]; do
  sleep 0.05
  i=$((i + 1))
done
printf 'last of %s' "$1"
exit "${2:-0}"
