# Whatever goes wrong: nothing that was called done is missing, nothing wrong is believed.
source "$(dirname "$0")/support.sh"
gateway bluestore
proxy
url=s3://fleet/all
blobring remote init -q "$url" --create-bucket
store a 1 3000

# A path that misbehaves a few times.
row=0
for faults in "status=503 count=3" "refuse count=2" "cut-up=200000 count=2" "cut-up=500 count=3" \
  "cut-down=300 count=2" "delay=0.005" "flip-up=100000 count=1" "hole count=1" "rate=600 count=1"; do
  row=$((row + 1))
  rm -rf a/remote
  blobring remote init -q "s3://fleet/$row"
  echo "$faults" >control
  timeout 100 "$tool" push -q --timeout 3 a "s3://fleet/$row" >/dev/null || fail "$faults: push"
  : >control
  expect 0 "nothing is wrong" remote check "s3://fleet/$row" --read-data
  echo "$faults" >control
  rm -rf back
  blobring init -q back
  timeout 100 "$tool" pull -q --timeout 3 back "s3://fleet/$row" || fail "$faults: pull"
  : >control
  has back a
done

# Answers as other services write them, and ones that have no end.
echo entities >control
expect 0 "nothing is wrong" remote check s3://fleet/1
for answer in "status=400 body=300000000" "status=200 body=300000000"; do
  echo "$answer" >control
  expect 1 "the answer is larger than 64.0 KiB" remote ls s3://fleet/1
  python3 -c 'import resource, subprocess, sys
subprocess.run(sys.argv[1:], stderr=subprocess.DEVNULL)
assert resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss < 200 * 1024' "$tool" remote ls s3://fleet/1
done
: >control

# Snapshots of nine days, two of each, which begin with a Thursday: what rules keep.
blobring remote init -q s3://fleet/days
for n in $(seq 16); do AWS_ENDPOINT_URL=$ENDPOINT blobring push -q a s3://fleet/days >/dev/null; done
echo days >control
expect 0 "12 forgotten" remote prune s3://fleet/days --keep-last 1 --keep-daily 3 --keep-weekly 2
same "$(blobring remote ls s3://fleet/days | cut -c28-29 | xargs)" "07 13 15 16"
: >control

# Answers that are changed on the way: a changed blob is never stored.
for at in 2000 40000 700000; do
  rm -rf back
  blobring init -q back
  echo "flip-down=$at count=2" >control
  blobring pull -q back s3://fleet/1 || [ $at -lt 700000 ]
  blobring fsck -q back
  : >control
  blobring pull -q back s3://fleet/1
  has back a
  has a back
done
echo "flip-up=100000 every" >control
rm -rf a/remote
expect 1 "the network path corrupts data" push a "$url"
: >control

# The gateway is killed in the middle, and started again.
echo "rate=1000000" >control
blobring push a "$url" >snapshot 2>push.err &
sleep 1
kill -9 "$(cat gw/client.rgw.a.pid)"
sleep 2
through=$through gateway bluestore
: >control
wait $! || fail "push over a restart: $(cat push.err)"
gives "$url" a "$(cat snapshot)"

# The OSD is killed in the middle.
store b 5001 8000
echo "rate=1000000" >control
blobring push --timeout 5 b "$url" >snapshot 2>push.err &
sleep 1
kill -9 "$(cat gw/osd.0.pid)"
sleep 2
gateway bluestore
: >control
wait $! || fail "push over a crash of the OSD: $(cat push.err)"
gives "$url" b "$(cat snapshot)"

# Ctrl-C: says what is safe, and the next push goes on.
python3 -c 'import random
for i in range(6): open("tree/big%d" % i, "wb").write(random.Random(i).randbytes(9000000 + i * 1500000))'
blobring import -q b tree >/dev/null
echo "rate=1000000" >control
"$tool" push b "$url" >out 2>&1 &
until [ "$(ls b/remote/*/pending 2>/dev/null | wc -l)" -ge 2 ]; do sleep 0.1; done
for signal in STOP TERM HUP CONT; do kill -$signal $!; done # one of two at once counts alone
status=0
wait $! || status=$?
same "$status" 130
grep -qE "no snapshot was made. [2-5] packs uploaded" out || fail "$(cat out)"
: >control
lost=$(basename "$(ls -d b/remote/*/pending/* | tail -n 1)") # to a prune, say
s3 "/all/packs/${lost:0:2}/$lost.pak" -X DELETE
[ "$(blobring push -q --json b "$url" | field packs)" -lt 6 ] || fail "the push started over"
gives "$url" b "$(cat b/remote/id)"

# Clocks that are 20 minutes apart.
store c 9001 9100
faketime -f +20m "$tool" push c "$url" >snapshot 2>out
grep -q "the clock of this machine and that of the service are 20:0. apart" out || fail "$(cat out)"
gives "$url" c "$(cat snapshot)"

# A quota, and disks that are full: an error that says so, and what was done stays.
store d 9101 9200
admin quota set --uid=test --quota-scope=user --max-objects=1
admin quota enable --uid=test --quota-scope=user
expect 1 "the remote is full" push d "$url"
admin quota disable --uid=test --quota-scope=user
for kind in nearfull backfillfull full; do timeout 30 ceph osd "set-$kind-ratio" 0.001 >/dev/null 2>&1; done
sleep 8
expect 1 "the remote is full" push d "$url" --timeout 3
for kind in full backfillfull nearfull; do timeout 30 ceph osd "set-$kind-ratio" 0.95 >/dev/null 2>&1; done
sleep 8
blobring push -q d "$url" >/dev/null
gives "$url" d
gives "$url" a "$(cat a/remote/id)"

# Keys that are wrong or missing, a certificate that is not trusted. No message shows a key.
expect 1 "certificate file" push a "$url" --endpoint "$TLS_ENDPOINT" --ca-file /etc/hostname
AWS_SECRET_ACCESS_KEY=wrong expect 1 "SignatureDoesNotMatch" remote ls "$url"
! grep -q "wrong" expect.out
AWS_ACCESS_KEY_ID='' HOME=$work expect 2 "there are no keys" remote ls "$url"
mkdir -p .aws
printf '[default]\naws_access_key_id = %s\naws_secret_access_key = %s\n' \
  "$AWS_ACCESS_KEY_ID" "$AWS_SECRET_ACCESS_KEY" >.aws/credentials
AWS_ACCESS_KEY_ID='' HOME=$work blobring remote ls "$url" --endpoint "$TLS_ENDPOINT"
AWS_CA_BUNDLE='' expect 1 "cannot read all/blobring.json" remote ls "$url" --endpoint "$TLS_ENDPOINT"
