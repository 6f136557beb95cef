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

rejected "Holdout must be in (0,100]" -h 0
rejected "Holdout must be in (0,100]" -h 100.5
rejected "Holdout must be in (0,100]" -h x
rejected "Holdout must be in (0,100]" -hf -5
rejected "MinObjects must be > 1" -m 1
rejected "MinObjects must be > 1" -m x

rejected "Confidence level must be in (0,1]" -c 0
rejected "Confidence level must be in (0,1]" -c 1.01
rejected "<n> must be in [1,$processors]" -ff 0
rejected "<n> must be in [1,$processors]" -ff $((processors + 1))
rejected "Unknown command: -zz" -zz
rejected "Unknown command: -C" -C 0.5
rejected "Unknown command: -ff1" -ff1

# Parsing stops at the first problem, after accepting what came before it.
rejected "Unknown command: -zz" -zz -h 0
rejected "MinObjects must be > 1" -c 0.5 -m 1 -h 0
# Each value is checked when met, not only the one that would be kept.
rejected "MinObjects must be > 1" -m 1 -m 3

# A missing argument never reads past the last word.
rejected "Option -f requires an argument" -f
rejected "Option -ff requires an argument" -np -ff

finish
