# Faults in the data rows and in the column rules checked at load time: one message on
# standard output, status 0.
source "$(dirname "$0")/lib.sh"

NAMES='outlook,string,discrete\ntemp,integer,continuous\nhumidity,float,continuous\nplay,string,class\n'

# fails_with MESSAGE DATA [NAMES]: loading DATA is refused with "Reading training data: MESSAGE";
# in DATA and NAMES, \n ends a line.
fails_with() {
  printf '%b' "${3:-$NAMES}" >bad.names
  printf '%b' "$2" >bad.data
  says "Reading training data: $1" -f bad
}

ROW='sunny,85,85,no\n'
NULL='[o_set::insert()] called with unadmitted null value'
fails_with "bad row format (row 2): rainy,70,96,yes,extra" "${ROW}rainy,70,96,yes,extra\n"
fails_with "bad row format (row 3): rainy,70,yes" "$ROW${ROW}rainy,70,yes\n"
fails_with "bad row format (row 2): " "$ROW\n"
fails_with "$NULL" "${ROW}rainy,70,96,?\n"
fails_with "8.5: _not an int" 'sunny,8.5,85,no\n'
fails_with ": not an int" 'sunny,,85,no\n'
fails_with "high: not a float" 'sunny,85,high,no\n'
fails_with "there must be only one class column" "$ROW" \
  'outlook,string,class\ntemp,integer,continuous\nhumidity,float,continuous\nplay,string,class\n'
fails_with "there must be only one class column" "$ROW" \
  'outlook,string,discrete\ntemp,integer,continuous\nhumidity,float,continuous\nplay,string,discrete\n'
fails_with "there must be at most one weights column" 'sunny,1,2,no\n' \
  'outlook,string,discrete\ntemp,integer,weights\nhumidity,float,weights\nplay,string,class\n'
fails_with "$NULL" 'sunny,?,85,no\n' \
  'outlook,string,discrete\ntemp,integer,weights\nhumidity,float,continuous\nplay,string,class\n'

# Unknown values where they are admitted, and a final separator, load.
printf '%b' "$NAMES" >ok.names
printf 'sunny,?,85,no,\n?,70,?,yes\n' >ok.data
ok -f ok -lstd
expect_line 3 '^  2 rows read\. Indexing \.\.\.  done\.$'

# With the log on, the failure follows what was logged so far.
printf 'sunny,85,85,no\nsunny\n' >bad.data
says "Reading data 
 ... 1st pass: 
Reading training data: bad row format (row 2): sunny" -f bad -lstd

finish
