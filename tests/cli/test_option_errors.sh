# Bad option values and unknown words print one message and end with status 255.
source "$(dirname "$0")/lib.sh"

# rejected MESSAGE ARGS...
rejected() {
  local message=$1
  shift
  run "$@"
  expect_status 255
  expect_output "$message"
}

processors=$(getconf _NPROCESSORS_ONLN)

for args in "-h 0" "-h 100.5" "-h x" "-hf -5"; do rejected "Holdout must be in (0,100]" $args; done
for args in "-m 1" "-m x"; do rejected "MinObjects must be > 1" $args; done
for args in "-c 0" "-c 1.01"; do rejected "Confidence level must be in (0,1]" $args; done
for n in 0 $((processors + 1)); do rejected "<n> must be in [1,$processors]" -ff $n; done
for word in -zz -C -ff1; do rejected "Unknown command: $word" $word 0.5; done

# Parsing stops at the first problem, after accepting what came before it.
rejected "Unknown command: -zz" -zz -h 0
rejected "MinObjects must be > 1" -c 0.5 -m 1 -h 0
# Each value is checked when met, not only the one that would be kept.
rejected "MinObjects must be > 1" -m 1 -m 3

# A missing argument never reads past the last word.
rejected "Option -f requires an argument" -f
rejected "Option -ff requires an argument" -np -ff

finish
