# Valid options are accepted; without metadata the run stops early with status 0.
source "$(dirname "$0")/lib.sh"

# accepted ARGS...
accepted() {
  run "$@"
  expect_status 0
  expect_output "No metadata provided."
}

accepted -np
accepted -m 1.5
accepted -c 1
accepted -h 100
accepted -hf 0.5
accepted -ff 1
accepted -ff "$(getconf _NPROCESSORS_ONLN)"
accepted -c4.5 -tstd -lstd -xstd -dstd
# An option's argument is taken as it is, even when it looks like an option.
accepted -sep -zz

finish
