# What prune deletes and what it keeps, with T and W in seconds.
source "$(dirname "$0")/support.sh"
gateway
url=s3://fleet/all
blobring remote init -q "$url" --create-bucket --push-within 6s --grace 8s

store full 1 2000
for remote in late all; do
  rm -rf a
  cp -r full a
  [ $remote = all ] || blobring remote init -q s3://fleet/late --push-within 6s --grace 8s
  blobring push -q a s3://fleet/$remote >first.$remote
  names a | awk 'NR <= 1500' | blobring rm -q a -
  blobring push -q a s3://fleet/$remote >/dev/null
done
s3 "/late/snapshots/$(cat first.late).snap" -o first.snap
pack=$(keys all packs)
index=$(keys all index)
s3 "/$pack" -o one.pak
s3 "/$index" -o one.idx
s3 "/${pack%-*}-0123456789abcdef.pak" -T one.pak # an orphan
expect 0 "0 objects would be marked" remote prune "$url" --keep-last 1 --dry-run # all is young
grep -q "1 would be forgotten" expect.out
same "$(blobring remote ls "$url" | wc -l)" 2
# Many small indexes become one.
blobring remote init -q s3://fleet/many --push-within 6s --grace 8s
blobring init -q many
for n in $(seq 33); do
  echo "$n" | blobring put -q many - >/dev/null
  blobring push -q many s3://fleet/many >/dev/null
done
# Of two copies the service has cut the one that is named first, and of other blobs the only one.
blobring remote init -q s3://fleet/copies --push-within 6s --grace 8s
store one 5001 5100
cp -r one again
blobring push -q one s3://fleet/copies >/dev/null
hidden=$(keys copies index)
s3 "/$hidden" -o hidden.idx
s3 "/$hidden" -X DELETE
blobring push -q again s3://fleet/copies >/dev/null
s3 "/$hidden" -T hidden.idx
printf xx >cut
first=$(s3 "/$(keys copies index | sed -n 1p)" | sed -n 2p)
s3 "/copies/packs/${first:0:2}/$first.pak" -T cut
keys copies packs >before
store two 5001 5200
blobring push -q two s3://fleet/copies >/dev/null
s3 "/$(keys copies packs | comm -13 before -)" -T cut
# An index says that a pack of rubbish has all blobs.
blobring remote init -q s3://fleet/lies --push-within 6s --grace 8s
blobring push -q again s3://fleet/lies >/dev/null
s3 "/$(keys lies snapshots)" -o real.snap
python3 - <<'PY' >lies
import hashlib, os, struct
hashes = open("real.snap", "rb").read().split(b"\n", 1)[1]
pack = os.urandom(4000 + 36 + 16)
name = hashlib.md5(pack).hexdigest() + "-0123456789abcdef"
index = b"blobring index 1 1 %d\n%s\n" % (len(hashes) // 16, name.encode())
for at in range(0, len(hashes), 16):
    index += hashes[at:at + 16] + struct.pack("<III", 0, 0, 4000)
for key, data in ("packs/%s/%s.pak" % (name[:2], name), pack), ("index/%s-0123456789abcdef.idx" % hashlib.md5(index).hexdigest(), index):
    open(os.path.basename(key), "wb").write(data)
    print(key)
PY
while read -r key; do for remote in lies lied; do s3 "/$remote/$key" -T "$(basename "$key")"; done; done <lies
blobring remote init -q s3://fleet/lied --push-within 6s --grace 8s
same "$(blobring push -q --json one s3://fleet/lied 2>said | field blobs)" 100
grep -q "packs/.* does not hold what an index says" said
gives s3://fleet/lied one
sleep 10
# Three quarters of the pack are dead: the rest moves, and the pack goes a grace period later.
expect 0 "1 pack rewritten" remote prune s3://fleet/late --keep-last 1
expect 0 "1 pack rewritten" remote prune "$url" --keep-last 1
expect 0 "0 objects deleted" remote prune "$url"
same "$(blobring push -q --json a "$url" | field blobs)" 0
expect 0 "33 objects marked" remote prune s3://fleet/many
gives "$url" a
# Nothing goes until the blobs that are nowhere are there again.
expect 1 "100 blobs that are in no sound pack" remote prune s3://fleet/copies --keep-last 1
grep -q "0 objects marked" expect.out
same "$(blobring push -q --json two s3://fleet/copies | field blobs)" 100
expect 0 "2 objects marked" remote prune s3://fleet/copies --keep-last 1
expect 0 "packs/.* does not hold what an index says" remote prune s3://fleet/lies
# What is marked is absent for a push, which sends it again, also where an index comes late.
s3 "/${index%-*}-0123456789abcdef.idx" -T one.idx
store b 1 2000
same "$(blobring push -q --json b "$url" | field blobs)" 1500
# A push that had listed before, and ends within its time, may rely on it: then it moves.
s3 "/late/snapshots/$(cat first.late).snap" -T first.snap
sleep 10
expect 0 "3 objects deleted" remote prune "$url"
expect 0 "2 objects deleted" remote prune s3://fleet/late --keep-last 1 # the last by the clock
expect 0 "33 objects deleted" remote prune s3://fleet/many
expect 0 "2 objects deleted" remote prune s3://fleet/copies
expect 0 "1 object deleted" remote prune s3://fleet/lies
for remote in all late many; do
  expect 0 "all indexed; nothing is wrong" remote check s3://fleet/$remote --read-data
done
gives "$url" b
gives "$url" a "$(cat a/remote/id)"
gives s3://fleet/late full "$(cat first.late)"
gives s3://fleet/many many
gives s3://fleet/copies one "$(cat again/remote/id)"
gives s3://fleet/copies two
gives s3://fleet/lies one
expect 0 "2 not indexed; nothing is wrong" remote check s3://fleet/copies

# Pushes beside prunes: whatever was called done stays.
: >done
pusher() {
  local name=$1 n
  for n in 1 2 3 4 5 6; do
    store "$name.$n" $((n * 300)) $((n * 300 + 600))
    if blobring push -q "$name.$n" "$url" >>done; then echo "$name.$n" >>stores; fi
  done
}
(mkdir x && cd x && url=$url pusher x) &
(mkdir y && cd y && url=$url pusher y) &
for _ in $(seq 8); do
  blobring remote prune -q "$url" --keep-within 1h & 
  blobring remote prune -q "$url" --keep-within 1h &
  wait -n || true
  sleep 2
done
wait
for round in 1 2; do
  blobring remote prune -q "$url" --keep-within 1h || true
  sleep 10
done
while read -r snapshot; do
  dir=${snapshot%%/*}
  from=$(grep -l "$dir" x/*/remote/id y/*/remote/id)
  gives "$url" "${from%/remote/id}" "$snapshot"
done < <(cat x/done y/done)
same "$(cat x/stores y/stores | wc -l)" 12
