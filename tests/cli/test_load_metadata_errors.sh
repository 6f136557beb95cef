# Faults in the metadata, missing files and missing names: one message on standard output,
# status 0.
source "$(dirname "$0")/lib.sh"

# fails_with MESSAGE NAMES: a table declared by NAMES (with good data; \n ends a line) is
# refused with MESSAGE.
fails_with() {
  printf '%b' "$2" >bad.names
  printf 'sunny,85,no\nrainy,70,yes\n' >bad.data
  run -f bad
  expect_status 0
  expect_output "$1"
}

TEMP='temp,integer,continuous\n'
PLAY='play,string,class\n'
fails_with "Reading metadata: bad row format (row 3): a,b" "outlook,string,discrete\n${TEMP}a,b\n$PLAY"
fails_with "Reading metadata: bad row format (row 2): " "outlook,string,discrete\n\n$PLAY"
fails_with "Reading metadata: bad row format (row 2): temp,integer," "outlook,string,discrete\ntemp,integer,\n$PLAY"
fails_with "Reading metadata: invalid o_set type = x" "outlook,x,discrete\n$TEMP$PLAY"
fails_with "Reading metadata: Unknown column type: nominal" "outlook,string,nominal\n$TEMP$PLAY"
fails_with "Reading metadata: Continuous column 'outlook' requires a numeric data type" \
  "outlook,string,continuous\n$TEMP$PLAY"
fails_with "Reading metadata: Continuous column 'temp' requires a numeric data type" \
  "outlook,string,discrete\ntemp,double,continuous\n$PLAY"
fails_with "Reading metadata: Weights column 'temp' requires a non-negative numeric data type" \
  "outlook,string,discrete\ntemp,string,weights\n$PLAY"
fails_with "Reading metadata: Null set of column values can only be used for ignore column type" \
  "outlook,null,discrete\n$TEMP$PLAY"
# The metadata is read with the data separator.
printf 'outlook,string,discrete\nplay,string,class\n' >semi.names
printf 'sunny;no\n' >semi.data
run -f semi -sep ';'
expect_status 0
expect_output "Reading metadata: bad row format (row 1): outlook,string,discrete"

# Missing files are reported by name alone.
run -f nosuch
expect_status 0
expect_output "File: nosuch.names not found or inaccessible"
printf 'outlook,string,discrete\ntemp,integer,continuous\nplay,string,class\n' >good.names
run -f good
expect_status 0
expect_output "File: good.data not found or inaccessible"
run -fm good.names -fd elsewhere/good.data
expect_status 0
expect_output "File: elsewhere/good.data not found or inaccessible"

# Nothing to read.
run -lstd
expect_status 0
expect_output "No metadata provided."
run -fd good.data
expect_status 0
expect_output "No metadata provided."
run -fm good.names -lstd
expect_status 0
expect_output "No training data provided."

finish
