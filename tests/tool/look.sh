# What looking commands say of files, whatever lies in them, and beside a process at work on them.
. "$(dirname "$0")/support.sh" "$@"

for i in 1 2 3; do head -c $((i * 3000)) /dev/urandom >blob$i; done
blobring init good
blobring put good blob1 blob2 >hashes # records at 64 and 3100, the end at 9152
blobring put good blob3 >>hashes      # a record at 9192, the end at 18244
cp good/0.jrn journal
blob2=$(sed -n 2p hashes)

start() { printf '\2' && head -c 39 /dev/zero; }  # of a transaction that has not ended
record() { head -c 3100 ../journal | tail -c 3036; } # the first one
emptied() { word f 4 0 && word f 12 4294967295 && word f 20 24; }

# row STATUS PATTERN COMMAND: of a copy of the journal that COMMAND changes.
mkdir rows
row() {
  cp journal rows/f
  (cd rows && eval "$3")
  expect "$1" "$2" inspect --records rows/f
}
row 0 "^ +9192 store +$(sed -n 3p hashes) +9000 +[0-9]{16} committed" true
row 0 "beyond 18244: 5000 bytes, zeros" "head -c 5000 /dev/zero >>f"
row 0 "beyond 18244: 3076 bytes, an unfinished transaction, 1 whole record" "{ start; record; } >>f"
row 0 "unfinished transaction, 1 whole" "head -c 3100 ../journal | tail -c 3076 >>f" # its length is there
row 0 "9192 store .* uncommitted" "word f 4 4; word f 20 9152"
row 0 "beyond 9152: .*commit did not reach the header, 1 whole record" "word f 4 4; word f 20 9152"
row 0 "9192 store .* stale" emptied
row 0 "beyond 24: 18220 bytes, 2 transactions of an older generation, 3 whole" emptied
row 0 "an unfinished repack, 1 whole record" "emptied; word f 8 1; truncate -s 24 f; { start; record; } >>f"
row 0 "beyond 18244: 100 bytes, leftovers" "head -c 100 ../blob1 >>f"
row 1 "3100 store +$blob2 +6000 +[0-9]{16} damaged" "flip_byte f 4000"
row 1 "damaged at 24: .*digest; 2 records beyond are sound" "flip_byte f 4000"
row 1 " 24 +[0-9]{16} .* wrong" "flip_byte f 4000"
row 0 "last transaction was cut off at 9152" "flip_byte f 9300"
row 1 "header damaged" "truncate -s 15000 f"
row 1 "header damaged" "truncate -s 23 f"
row 1 "damaged at 24: the header counts more" "word f 4 4294967295"
same "$(blobring inspect --transaction 9152 good | grep -c ' ok$')" 1
expect 4 "no transaction 5" inspect --transaction 5 good

# The generation that counts is checked, one that is older is named.
blobring repack good
flip_byte good/0.jrn 4000
expect 0 "good/0.jrn is of an older generation" check good
cp -r good bad
flip_byte bad/1.pak 4000
expect 1 "^bad/1.pak at [0-9]+: blob [0-9a-f]{32}, [0-9]+ bytes, does not match" check bad
expect 1 "does not match" check --structure bad
expect 0 "4 headers: every one is sound" check --quick bad
expect 1 "nowhere: missing" check --quick nowhere
cp good/1.pak good/1.pak.new
expect 0 "leftover +good/1.pak.new" stat good

# Somebody holds it.
flock -F good/1.pak sleep 60 &
holder=$!
for _ in {1..50}; do grep -q "FLOCK.* $holder " /proc/locks && break || sleep 0.1; done
expect 0 "^open in +process $holder \(sleep\)" stat good
expect 0 "may be changing" ls good
kill $holder

# Whatever is in a file, the answer is an answer.
RANDOM=1
for i in {1..24}; do
  cp journal rows/f
  case $((i % 4)) in
    0) head -c $((RANDOM % 3000)) /dev/urandom >rows/f ;;
    1) truncate -s $((RANDOM % 18244)) rows/f ;;
    2) word rows/f $((RANDOM % 18240)) $((RANDOM * RANDOM * 4)) ;;
    3) for _ in 1 2 3; do flip_byte rows/f $((RANDOM % 200)); done ;;
  esac
  for command in "inspect --records" "inspect --json" check ls stat; do
    status=0
    timeout 20 "$tool" $command rows/f >seen 2>&1 || status=$?
    [ $status -le 2 ] || fail "$command, input $i: status $status: $(cat seen)"
  done
done

# Beside a process that commits and repacks, no damage is seen that is not there, and no committed
# blob is missing. A store that changes each time it is read is left alone, with status 3.
for slots in 1 2; do
  store=busy$slots
  blobring init $store --slots $slots
  blobring put $store blob1 >/dev/null
  : >running
  (n=0 && while [ -e running ]; do
    echo $((n += 1)) | "$tool" put $store >/dev/null
    [ $((n % 3)) != 0 ] || "$tool" repack -q $store
  done) &
  for _ in {1..25}; do
    for command in check ls stat inspect "get $(head -1 hashes)"; do
      status=0
      set -- $command
      "$tool" "$1" $store "${@:2}" >seen 2>said || status=$?
      [ $status = 0 ] || [ $status = 3 ] || fail "$command beside a writer: $status: $(cat seen said)"
      [ "$command" != ls ] || [ $status = 3 ] || grep -q "$(head -1 hashes)" seen || fail "a blob is missing"
    done
  done
  rm running
  wait
done
