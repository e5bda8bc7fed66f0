#!/bin/sh
# Reads nothing until the test creates "go", then keeps the whole standard
# input in "prompt.bin". Gives up after ~20 s.
echo waiting
i=0
while [ ! -e go ] && [ $i -lt 400 ]; do
  sleep 0.05
  i=$((i + 1))
done
cat > prompt.bin
echo "read $(wc -c < prompt.bin) bytes"
