# Faults of all kinds, drawn at random from the seed that is printed, for five minutes; then the robot is home again and has
# lost nothing. lab/storm plays many, of any seed, and finds the fewest faults that do it.
# limit: 1500 s
storm "$(date +%N | sed 's/^0*//')" 5
