# Imports killed by SIGKILL at random moments, over and over: every manifest line
# that was printed stands for a blob that is there from then on.
# killed_import.sh TOOL [ROUNDS [SEED]]
. "$(dirname "$0")/support.sh" "$@"

rounds=${2:-200}
seed=${3:-$RANDOM}
echo "seed $seed"
RANDOM=$seed
files=2500 # three transactions, so that a part can be acknowledged

mkdir tree
(cd tree && seq -f "file %g" $files | split -a 4 -l 1 -)

# A store whose import has come to its end has seen its share; another follows.
fresh() {
  rm -rf s
  blobring init s --slots $((RANDOM % 3 + 1)) 2>/dev/null
  : >acknowledged
}

whole_import() {
  expect 0 "imported $files files" import s tree -m manifest
  expect 0 "every blob is sound" fsck s
  rm -rf restored
  expect 0 "restored $files files" export s manifest restored
  diff -r tree restored
}

# Microseconds that an import takes at the moment; kills come within that time.
measure() {
  fresh
  local began=${EPOCHREALTIME/./}
  blobring import s tree >/dev/null 2>&1
  duration=$((${EPOCHREALTIME/./} - began))
  [ "$duration" -le 900000 ] || duration=900000
  fresh
}
measure

killed=0
midway=0 # killed with a part of the lines printed
for ((round = 1; round <= rounds; ++round)); do
  "$tool" import s tree >printed 2>/dev/null &
  pid=$!
  sleep "$(printf '0.%06d' $(((RANDOM * 32768 + RANDOM) % duration)))"
  kill -9 $pid 2>/dev/null || true
  status=0
  wait $pid 2>/dev/null || status=$?
  [ $status -eq 0 ] || [ $status -eq 137 ] || fail "round $round: the import ended with $status"
  head -n "$(wc -l <printed)" printed >whole # the last line may have been cut
  cut -c-32 whole >>acknowledged
  expect 0 "every blob is sound" fsck s
  blobring ls s >listed
  lost=$(sort -u acknowledged | comm -23 - listed)
  [ -z "$lost" ] || fail "round $round: acknowledged and gone: $lost"
  [ ! -s whole ] || (cd tree && md5sum --quiet -c ../whole) || fail "round $round: a wrong hash was printed"
  if [ $status -eq 0 ]; then
    measure
    continue
  fi
  killed=$((killed + 1))
  [ ! -s whole ] || [ "$(wc -l <whole)" -eq $files ] || midway=$((midway + 1))
  if ((RANDOM % 8 == 0)); then blobring repack s 2>/dev/null; fi
done
whole_import
echo "$killed of $rounds imports killed, $midway of them with a part acknowledged"
# A run that killed next to nothing proves nothing.
[ $((killed * 4)) -ge "$rounds" ] && [ "$midway" -ge 1 ] || fail "too few were killed at work"
