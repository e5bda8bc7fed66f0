#!/bin/sh
# $1 bytes of "abcdefgh" over and over without a line feed, then the end of
# the output.
yes abcdefgh | tr -d '\n' | head -c "$1"
