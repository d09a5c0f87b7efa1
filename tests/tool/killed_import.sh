# Imports killed by SIGKILL at random moments, most of them after their first
# and before their last commit: every manifest line that was printed stands for a
# blob that is there from then on, byte for byte, and an import that is run again
# comes to its end.
# killed_import.sh TOOL [KILLS [SEED]]
# A kill leaves on a disk what it leaves in memory, where nothing waits for flushes.
if [ -w /dev/shm ]; then export TMPDIR=${TMPDIR:-/dev/shm}; fi
. "$(dirname "$0")/support.sh" "$@"

kills=${2:-16}
seed=${3:-$RANDOM}
echo "seed $seed"
RANDOM=$seed
files=8000 # eight commits, each followed by its lines

# Some are larger than the 512 KiB that are gathered before they are written.
mkdir tree
(
  cd tree
  seq -f "file %g" $files | split -a 4 -l 1 -
  for name in xa[adgj]mm; do
    head -c $((550000 + RANDOM)) /dev/urandom >>"$name"
  done
  find . -type f -exec md5sum {} +
) | sort >expected
cut -c-32 expected | sort -u >hashes
same "$(wc -l <expected)" $files

fresh() {
  rm -rf s
  blobring init s --slots $((RANDOM % 3 + 1)) 2>/dev/null
  : >acknowledged
}

# random N: below N, which may be more than RANDOM gives.
random() { echo $(((RANDOM * 32768 + RANDOM) % $1)); }
nap() { sleep "$(printf '%d.%06d' $(($1 / 1000000)) $(($1 % 1000000)))"; }
now() { echo "${EPOCHREALTIME/./}"; }

# What an import takes at the moment, in microseconds, and when its first lines come.
measure() {
  local began pid
  fresh
  began=$(now)
  "$tool" import s tree >printed 2>/dev/null &
  pid=$!
  until [ -s printed ]; do :; done
  firstLines=$(($(now) - began))
  wait $pid
  duration=$(($(now) - began))
}

# Kills an import of the tree: three times in four after a part is acknowledged,
# otherwise at any moment. Leaves its exit status in `status`.
killed_import() {
  local pid delay
  : >printed
  "$tool" import s tree >printed 2>/dev/null &
  pid=$!
  if ((RANDOM % 4 > 0)); then
    delay=$(random $((duration - firstLines)))
    until [ -s printed ] || ! kill -0 $pid 2>/dev/null; do :; done
  else
    delay=$(random "$duration")
  fi
  nap "$delay"
  kill -9 $pid 2>/dev/null || true
  status=0
  wait $pid 2>/dev/null || status=$?
  [ $status -eq 0 ] || [ $status -eq 137 ] || fail "kill $killed: the import ended with $status"
}

# All that was ever acknowledged is there and sound, and reads back.
check() {
  local wrong lost
  head -n "$(wc -l <printed)" printed | sort >whole # the last line may have been cut
  wrong=$(comm -23 whole expected)
  [ -z "$wrong" ] || fail "kill $killed: printed for no file: $wrong"
  sort -u -o acknowledged acknowledged whole
  expect 0 "every blob is sound" fsck s
  blobring ls s >listed
  lost=$(cut -c-32 acknowledged | sort -u | comm -23 - listed)
  [ -z "$lost" ] || fail "kill $killed: acknowledged and gone: $lost"
  # fsck has compared every blob with its hash; coreutils compare a few.
  awk -v seed=$RANDOM -v n="$(wc -l <acknowledged)" 'BEGIN { srand(seed) } rand() * n < 10 { print $1 }' acknowledged >sample
  while read -r hash; do
    same "$(blobring get s "$hash" | md5sum | cut -c-32)" "$hash"
  done <sample
}

come_to_its_end() {
  expect 0 "imported $files files" import s tree -m manifest
  sort manifest | cmp - expected
  expect 0 "every blob is sound" fsck s
  blobring ls s | cmp - hashes
}

measure
killed=0
midway=0 # with some of the files acknowledged, and some not
for ((round = 1; killed < kills; ++round)); do
  [ $round -le $((4 * kills)) ] || fail "only $killed of $round imports were killed at work"
  fresh
  for ((left = RANDOM % 3; left >= 0; --left)); do
    killed_import
    check
    [ $status -ne 0 ] || break
    killed=$((killed + 1))
    [ ! -s whole ] || [ "$(wc -l <whole)" -eq $files ] || midway=$((midway + 1))
    if ((RANDOM % 8 == 0)); then blobring repack s 2>/dev/null; fi
  done
  come_to_its_end
  # It takes less time than it did.
  [ $status -ne 0 ] || measure
done
rm -rf restored
expect 0 "restored $files files" export s manifest restored
diff -r tree restored
echo "$killed imports killed, $midway of them with a part acknowledged; each store came to its end"
# A run that kills next to nothing at work proves nothing.
[ $((midway * 3)) -ge "$killed" ] || fail "too few were killed with a part acknowledged"
