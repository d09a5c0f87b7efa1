# What prune deletes and what it keeps, with T and W in seconds.
source "$(dirname "$0")/support.sh"
gateway
url=s3://fleet/all
blobring remote init -q "$url" --create-bucket --push-within 3s --grace 5s

store a 1 2000
blobring push -q a "$url" >/dev/null
names a | awk 'NR <= 1500' | blobring rm -q a -
blobring push -q a "$url" >/dev/null
expect 0 "1 would be forgotten" remote prune "$url" --keep-last 1 --dry-run
same "$(blobring remote ls "$url" | wc -l)" 2
sleep 7
# Three quarters of the pack are dead: the rest moves, and the pack goes a time of grace later.
expect 0 "1 pack rewritten" remote prune "$url" --keep-last 1
gives "$url" a
expect 0 "0 objects deleted" remote prune "$url"
# What is marked is absent for a push, which sends it again.
store b 1 2000
same "$(blobring push -q --json b "$url" | field blobs)" 1500
sleep 7
expect 0 "2 objects deleted" remote prune "$url"
expect 0 "all indexed; nothing is wrong" remote check "$url" --read-data 100
gives "$url" b
gives "$url" a "$(cat a/remote/id)"

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
  sleep 7
done
while read -r snapshot; do
  dir=${snapshot%%/*}
  from=$(grep -l "$dir" x/*/remote/id y/*/remote/id)
  gives "$url" "${from%/remote/id}" "$snapshot"
done < <(cat x/done y/done)
same "$(cat x/stores y/stores | wc -l)" 12
