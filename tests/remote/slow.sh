# Pushes that take long: several at once, each with a remote of its own.
source "$(dirname "$0")/support.sh"
gateway memstore $((2 << 30))
mkdir tree
python3 -c 'import random
for i in range(30): open("tree/%d" % i, "wb").write(random.Random(i).randbytes(8800000))'
blobring init -q a
blobring import -q a tree >/dev/null # 252 MiB, each blob alone in its pack
cp -r a b
pushes() { # STORE URL KIBIBYTES [OPTION...]
  local began=$SECONDS
  "$tool" push "$1" "$2" --limit-rate "$3" "${@:4}" >"${2##*/}" 2>"${2##*/}.err" &
  echo $! >"${2##*/}.pid"
  wait $!
  echo $((SECONDS - began)) >"${2##*/}.seconds"
}
# Runs a command while the push of a store, of which a part is uploaded, is stopped.
meanwhile() { # STORE NAME COMMAND...
  until compgen -G "$1/remote/*/pending/*" >/dev/null; do sleep 0.1; done
  kill -STOP "$(cat "$2.pid")"
  "${@:3}"
  kill -CONT "$(cat "$2.pid")"
}
repacked_twice() { blobring repack -q b && blobring repack -q b; }

# Not through after T/2: a partial snapshot keeps prunes from what is there already.
blobring remote init -q s3://fleet/partial --create-bucket --push-within 40s --grace 41s
pushes a s3://fleet/partial 32768 &
pids=($!)
meanwhile a partial sleep 21 &
pids+=($!)
# No round of it gets to its snapshot within T: what is there is made sure of first.
blobring remote init -q s3://fleet/lapses --push-within 3s --grace 4s
pushes a s3://fleet/lapses 16384 --cache lapses.cache &
pids+=($!)
# The store is repacked until what is yet to be read is overwritten.
blobring remote init -q s3://fleet/repacked
pushes b s3://fleet/repacked 16384 &
pids+=($!)
meanwhile b repacked repacked_twice &
pids+=($!)

sleep 8
while jobs -r | grep -q .; do
  for name in partial lapses; do
    blobring remote prune -q s3://fleet/$name --keep-last 1 2>prune.err || # has T as well
      grep -q "in which it must be through; the next goes on" prune.err || fail "$(cat prune.err)"
  done
  sleep 1
done
for pid in "${pids[@]}"; do wait "$pid" || fail "$(cat ./*.err)"; done
[ "$(cat lapses.seconds)" -ge 15 ] || fail "252 MiB went at more than 16 MiB a second"
grep -q /000000000002- partial || fail "no partial snapshot came before $(cat partial)"
grep -q "b was repacked meanwhile; looking again" repacked.err || fail "$(cat repacked.err)"
for name in partial lapses repacked; do gives s3://fleet/$name a "$(cat $name)"; done

# No write is begun after T, and a snapshot that is acknowledged later does not count.
late="takes longer than 0:03, in which it must be through; it is not done"
blobring remote init -q s3://fleet/short --push-within 3s --grace 1h
blobring init -q tiny
blobring put -q tiny "$tool" >/dev/null
blobring push -q tiny s3://fleet/short >/dev/null
proxy
echo delay=1 >control
expect 1 "$late" push tiny s3://fleet/short
: >control
same "$(blobring remote ls s3://fleet/short | wc -l)" 1
echo delay-put=4 >control
expect 1 "$late" push tiny s3://fleet/short
