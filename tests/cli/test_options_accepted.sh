# Valid options are accepted; without metadata the run stops early with status 0. An option's
# argument is taken as it is, even when it looks like an option (-sep -zz).
source "$(dirname "$0")/lib.sh"

for args in -np "-m 1.5" "-c 1" "-h 100" "-hf 0.5" "-ff 1" "-ff $(getconf _NPROCESSORS_ONLN)" \
  "-c4.5 -tstd -lstd -xstd -dstd" "-sep -zz"; do
  says "No metadata provided." $args
done

finish
