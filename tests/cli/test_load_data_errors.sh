# Faults in the data rows and in the column rules checked at load time: one message on
# standard output, status 0.
source "$(dirname "$0")/lib.sh"

NAMES='outlook,string,discrete
temp,integer,continuous
humidity,float,continuous
play,string,class'

# fails_with MESSAGE DATA [NAMES]: loading DATA is refused with MESSAGE.
fails_with() {
  printf '%s\n' "${3:-$NAMES}" >bad.names
  printf '%s' "$2" >bad.data
  run -f bad
  expect_status 0
  expect_output "$1"
}

fails_with "Reading training data: bad row format (row 2): rainy,70,96,yes,extra" 'sunny,85,85,no
rainy,70,96,yes,extra
'
fails_with "Reading training data: bad row format (row 3): rainy,70,yes" 'sunny,85,85,no
sunny,85,85,no
rainy,70,yes
'
fails_with "Reading training data: bad row format (row 2): " 'sunny,85,85,no

'
fails_with "Reading training data: [o_set::insert()] called with unadmitted null value" 'sunny,85,85,no
rainy,70,96,?
'
fails_with "Reading training data: 8.5: _not an int" 'sunny,8.5,85,no
'
fails_with "Reading training data: : not an int" 'sunny,,85,no
'
fails_with "Reading training data: high: not a float" 'sunny,85,high,no
'
fails_with "Reading training data: there must be only one class column" 'sunny,85,85,no
' 'outlook,string,class
temp,integer,continuous
humidity,float,continuous
play,string,class'
fails_with "Reading training data: there must be only one class column" 'sunny,85,85,no
' 'outlook,string,discrete
temp,integer,continuous
humidity,float,continuous
play,string,discrete'
fails_with "Reading training data: there must be at most one weights column" 'sunny,1,2,no
' 'outlook,string,discrete
temp,integer,weights
humidity,float,weights
play,string,class'
fails_with "Reading training data: [o_set::insert()] called with unadmitted null value" 'sunny,?,85,no
' 'outlook,string,discrete
temp,integer,weights
humidity,float,continuous
play,string,class'

# Unknown values where they are admitted, and a final separator, load.
printf '%s\n' "$NAMES" >ok.names
printf 'sunny,?,85,no,\n?,70,?,yes\n' >ok.data
run -f ok -lstd
expect_status 0
expect_line 3 '^  2 rows read\. Indexing \.\.\.  done\.$'

# With the log on, the failure follows what was logged so far.
printf 'sunny,85,85,no\nsunny\n' >bad.data
run -f bad -lstd
expect_status 0
expect_output "Reading data 
 ... 1st pass: 
Reading training data: bad row format (row 2): sunny"

finish
