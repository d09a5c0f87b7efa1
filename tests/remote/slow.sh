# Pushes that take long: several at once, each with a remote of its own.
source "$(dirname "$0")/support.sh"
gateway memstore $((2 << 30))
mkdir tree
python3 -c 'import random
for i in range(20): open("tree/%d" % i, "wb").write(random.Random(i).randbytes(8800000))'
blobring init -q a
blobring import -q a tree >/dev/null # 168 MiB, each blob alone in its pack
pushes() { # STORE URL [OPTION...]
  local name=${2##*/} began=$SECONDS
  blobring push "$@" --limit-rate 16384 >"$name" 2>"$name.err"
  echo $((SECONDS - began)) >"$name.seconds"
}

# Longer than T: partial snapshots keep prunes from what is there already.
blobring remote init -q s3://fleet/partial --create-bucket --push-within 10s --grace 11s
pushes a s3://fleet/partial &
pids=($!)
# No round of it gets to its snapshot within T: what is there is made sure of first.
blobring remote init -q s3://fleet/lapses --push-within 3s --grace 4s
pushes a s3://fleet/lapses --cache lapses.cache &
pids+=($!)
# The store is repacked until what is yet to be read is overwritten.
blobring remote init -q s3://fleet/repacked
cp -r a b
"$tool" push b s3://fleet/repacked --limit-rate 16384 >repacked 2>repacked.err &
pids+=($!)
(
  until compgen -G "b/remote/*/pending/*" >/dev/null; do sleep 0.1; done
  kill -STOP $!
  blobring repack -q b
  blobring repack -q b
  kill -CONT $!
) &

sleep 8
while jobs -r | grep -q .; do
  blobring remote ls s3://fleet/partial >>seen
  for name in partial lapses; do blobring remote prune -q s3://fleet/$name --keep-last 1; done
  sleep 1
done
grep -q " partial$" seen || fail "no partial snapshot was seen"
wait "${pids[@]}" || fail "$(cat ./*.err)"
[ "$(cat partial.seconds)" -ge 10 ] || fail "168 MiB went at more than 16 MiB a second"
grep -q "b was repacked meanwhile; looking again" repacked.err || fail "$(cat repacked.err)"
for name in partial lapses repacked; do gives s3://fleet/$name a "$(cat $name)"; done

# No write is begun after T, and a snapshot that is acknowledged later does not count.
late="takes longer than 0:01, in which it must be through; it is not done"
blobring remote init -q s3://fleet/short --push-within 1s --grace 1h
blobring init -q tiny
blobring put -q tiny "$tool" >/dev/null
blobring push -q tiny s3://fleet/short >/dev/null
proxy
echo delay=0.5 >control
expect 1 "$late" push tiny s3://fleet/short
: >control
same "$(blobring remote ls s3://fleet/short | wc -l)" 1
echo delay-put=1.5 >control
expect 1 "$late" push tiny s3://fleet/short
