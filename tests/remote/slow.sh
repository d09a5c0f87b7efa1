# Pushes that take long: several at once, each with a remote of its own.
source "$(dirname "$0")/support.sh"
gateway memstore $((2 << 30))
mkdir tree
python3 -c 'import random
for i in range(20): open("tree/%d" % i, "wb").write(random.Random(i).randbytes(8800000))'
blobring init -q a
blobring import -q a tree >/dev/null # 168 MiB, each blob alone in its pack
pushes() { blobring push "$@" --limit-rate 16384; }
began=$SECONDS

# Longer than T: partial snapshots keep prunes from what is there already.
blobring remote init -q s3://fleet/partial --create-bucket --push-within 10s --grace 11s
pushes a s3://fleet/partial >partial 2>partial.err &
pids=($!)
# No round of it gets to its snapshot within T: what is there is made sure of first.
blobring remote init -q s3://fleet/lapses --push-within 3s --grace 4s
pushes a s3://fleet/lapses --cache lapses.cache >lapses 2>lapses.err &
pids+=($!)
# The store is repacked until what was being read is overwritten.
blobring remote init -q s3://fleet/repacked
cp -r a b
pushes b s3://fleet/repacked >repacked 2>repacked.err &
pids+=($!)
(sleep 2; blobring repack -q b; blobring repack -q b) &

sleep 8
while jobs -r | grep -q .; do
  blobring remote ls s3://fleet/partial >>seen
  for name in partial lapses; do blobring remote prune -q s3://fleet/$name --keep-last 1; done
  sleep 1
done
[ $((SECONDS - began)) -ge 10 ] || fail "168 MiB went at more than 16 MiB a second"
grep -q " partial$" seen || fail "no partial snapshot was seen"
wait "${pids[@]}" || fail "$(cat ./*.err)"
grep -q "b was repacked meanwhile; looking again" repacked.err || fail "$(cat repacked.err)"
for name in partial lapses repacked; do gives s3://fleet/$name a "$(cat $name)"; done

# A snapshot that comes too late does not count.
proxy
echo delay=0.7 >control
expect 1 "takes longer than 0:03, in which it must be through; it is not done" push a s3://fleet/lapses
