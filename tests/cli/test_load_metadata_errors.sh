# Faults in the metadata, missing files and missing names: one message on standard output,
# status 0.
source "$(dirname "$0")/lib.sh"

# fails_with MESSAGE NAMES: a table declared by NAMES (with good data; \n ends a line) is
# refused with "Reading metadata: MESSAGE".
fails_with() {
  printf '%b' "$2" >bad.names
  printf 'sunny,85,no\nrainy,70,yes\n' >bad.data
  says "Reading metadata: $1" -f bad
}

OUTLOOK='outlook,string,discrete\n'
TEMP='temp,integer,continuous\n'
PLAY='play,string,class\n'
fails_with "bad row format (row 3): a,b" "$OUTLOOK${TEMP}a,b\n$PLAY"
fails_with "bad row format (row 2): " "$OUTLOOK\n$PLAY"
fails_with "bad row format (row 2): temp,integer," "${OUTLOOK}temp,integer,\n$PLAY"
fails_with "invalid o_set type = x" "outlook,x,discrete\n$TEMP$PLAY"
fails_with "Unknown column type: nominal" "outlook,string,nominal\n$TEMP$PLAY"
fails_with "Continuous column 'outlook' requires a numeric data type" \
  "outlook,string,continuous\n$TEMP$PLAY"
fails_with "Continuous column 'temp' requires a numeric data type" \
  "${OUTLOOK}temp,double,continuous\n$PLAY"
fails_with "Weights column 'temp' requires a non-negative numeric data type" \
  "${OUTLOOK}temp,string,weights\n$PLAY"
fails_with "Null set of column values can only be used for ignore column type" \
  "outlook,null,discrete\n$TEMP$PLAY"
# The metadata is read with the data separator.
printf 'outlook,string,discrete\nplay,string,class\n' >semi.names
printf 'sunny;no\n' >semi.data
says "Reading metadata: bad row format (row 1): outlook,string,discrete" -f semi -sep ';'

# Missing files are reported by name alone.
says "File: nosuch.names not found or inaccessible" -f nosuch
printf 'outlook,string,discrete\ntemp,integer,continuous\nplay,string,class\n' >good.names
says "File: good.data not found or inaccessible" -f good
says "File: elsewhere/good.data not found or inaccessible" -fm good.names -fd elsewhere/good.data

# Nothing to read.
says "No metadata provided." -lstd
says "No metadata provided." -fd good.data
says "No training data provided." -fm good.names -lstd

finish
