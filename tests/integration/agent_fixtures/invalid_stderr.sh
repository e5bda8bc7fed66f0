#!/bin/sh
# Standard error that is not UTF-8.
printf 'bad \377 bytes\n' >&2
exit 2
