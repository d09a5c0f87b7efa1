# A fleet: three stores with common blobs, one remote.
source "$(dirname "$0")/support.sh"
gateway
url=s3://fleet/all

expect 4 "does not exist" remote init "$url"
expect 2 "must be longer" remote init "$url" --grace 1h
expect 0 "is a remote" remote init "$url" --create-bucket
expect 2 "is a remote already" remote init "$url"
expect 1 "is no remote" remote ls s3://fleet/other
expect 4 "no whole snapshot" pull a "$url"

store a 1 2000
store b 1001 3000
store c 2001 4000

# A push sends what no other has sent; the same again sends a snapshot alone.
blobring push -q --json a "$url" -m first >a.json
same "$(field blobs <a.json)" 2000
blobring push -q --json a "$url" >a.json
same "$(field blobs <a.json) $(field requests <a.json)" "0 4"
same "$(blobring push -q --json b "$url" | field blobs)" 1000
same "$(blobring push -q --json c "$url" | field blobs)" 1000
same "$(blobring remote ls "$url" | wc -l)" 4
blobring remote ls "$url" | grep -q "  first$"
blobring remote check "$url" --read-data 100 2>&1 | grep -q "nothing is wrong"
gives "$url" c
gives "$url" a "$(cat a/remote/id)"
has back a
blobring sync -q a "$url" >/dev/null
has a c

# Of scattered blobs little more than themselves is read, once the indexes are there.
store some 1 2000
names some | awk 'NR % 100 == 1' | blobring rm -q some -
moved=$(blobring pull -q --json some "$url" --snapshot "$(cat b/remote/id)" | field bytes_received)
names some | awk 'NR % 100 == 2' | blobring rm -q some -
store all 1 4000
blobring pull -q all "$url"
names all | shuf -n 40 --random-source=<(yes) >gone
blobring rm -q all - <gone
moved=$(blobring pull -q --json all "$url" --snapshot "$(cat a/remote/id)" | field bytes_received)
[ "$moved" -lt $((16 * 4500 + 3 * 40 * 1060)) ] || fail "$moved bytes were read for 40 blobs"

# A device's pack is one of the store's own format.
blobring push -q b "$url" >/dev/null
curl -sf --aws-sigv4 aws:amz:us-east-1:s3 -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
  "$ENDPOINT/fleet?list-type=2&prefix=all%2Fpacks%2F" | grep -o '<Key>[^<]*' | cut -c6- >packs
while read -r key; do
  curl -sf --aws-sigv4 aws:amz:us-east-1:s3 -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
    -o one.pak "$ENDPOINT/fleet/$key"
  same "$(hash one.pak)" "$(basename "$key" | cut -c-32)"
  blobring check one.pak >/dev/null
done <packs

# A pack that the service has lost: check and pull name it, the next push of its blobs brings it back
# once prune has seen it.
key=$(head -n 1 packs)
curl -sf -X DELETE --aws-sigv4 aws:amz:us-east-1:s3 -u "$AWS_ACCESS_KEY_ID:$AWS_SECRET_ACCESS_KEY" \
  "$ENDPOINT/fleet/$key"
expect 1 "packs/.* is missing" remote check "$url"
expect 1 "is gone or damaged" pull c "$url" --snapshot "$(cat a/remote/id)"
expect 1 "are in no pack" remote prune "$url"
blobring push -q a "$url" >/dev/null
expect 0 "nothing is wrong" remote check "$url"
gives "$url" a
