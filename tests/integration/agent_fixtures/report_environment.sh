#!/bin/sh
# Reports what the agent sees: working folder, arguments, PATH, one of our
# variables, whether SIGPIPE is ignored; keeps its standard input in
# "stdin.bin" in the working folder.
echo "cwd:$(pwd)"
echo "argc:$#"
for arg in "$@"; do
  echo "arg:$arg"
done
echo "path:$PATH"
echo "marker:$ORVANE_AGENT_TEST_MARKER"
echo "sigign:$(grep SigIgn /proc/$$/status | cut -f2)"
cat > stdin.bin
echo "stdin bytes:$(wc -c < stdin.bin)"
