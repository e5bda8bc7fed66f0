#!/bin/sh
# A character split across two writes, an empty line, a carriage return
# before a line feed, a line that is not UTF-8 and a last line without a line
# break. \303\251 is "é" in UTF-8.
printf 'caf\303'
sleep 0.3
printf '\251 au lait\n'
printf 'second\n\nthird\r\n'
printf '\377\376 not utf-8\n'
printf 'tail'
