#!/bin/sh
# Prints its standard input back, so the prompt comes back as lines.
cat
