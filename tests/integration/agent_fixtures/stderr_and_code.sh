#!/bin/sh
# Some output, a standard-error text, and the exit status given as $1.
echo "to stdout"
printf 'problem: \303\251\nsecond line\n' >&2
exit "$1"
