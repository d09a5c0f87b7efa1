# Damage, files that cannot grow, other hosts' stores: what was committed stays,
# commands that look change nothing, and the user is told.
. "$(dirname "$0")/support.sh" "$@"

for i in 1 2 3; do head -c 100000 /dev/urandom >"part$i"; done

# unchanged STORE STATUS PATTERN: every command that looks says so, the second time as the first.
unchanged() {
  find "$1" -type f -exec md5sum {} + -exec stat -c '%n %Y %Z' {} + | sort >before
  for command in ls ls fsck stat; do expect "$2" "$3" $command "$1"; done
  find "$1" -type f -exec md5sum {} + -exec stat -c '%n %Y %Z' {} + | sort | cmp - before
}

# A file that cannot grow: no hash is printed that is not safe, what was committed stays.
blobring init full
blobring put full part1
(ulimit -f 250; blobring put full part2 part3 >printed 2>error) && fail "there was room"
[ ! -s printed ] || fail "a hash was printed that is not safe"
grep -q "commit: .*may not grow further" error
same "$(blobring ls full)" "$(hash part1)"
same "$(blobring put full part2 part3)" "$(hash part2 part3)"
(ulimit -f 250; blobring repack full 2>error) && fail "there was room"
grep -q "may not grow further" error
expect 0 "checked 3 blobs.*every blob is sound" fsck full
blobring get full "$(hash part1)" >/dev/full 2>error && fail "a full disk went unseen"
grep -q "standard output: No space left" error
(ulimit -f 50; blobring get full "$(hash part1)" -o out 2>error) && fail "there was room"
same "$(cat error) $(find . -name 'out' -o -name '.blob*')" "blobring: cannot write out: File too large "

# A file that is missing is created by no command.
blobring init gone
abc=$(printf abc | blobring put gone)
blobring repack gone
for file in 1.pak 0.jrn; do
  mv gone/$file aside
  expect 1 "gone/$file is missing" put --on-damage erase gone part1
  mv -n aside gone/$file && [ ! -e aside ] || fail "gone/$file was created"
done

# A store without a layout file, on a file system that is read-only.
cp -r gone device
rm device/blobring.conf
mkdir packs
cp -r device split && mv split/*.pak packs
readonly_run() { "$@"; }
if unshare -rm true 2>/dev/null; then
  readonly_run() { unshare -rm sh -c 'mount --bind device device && mount -o remount,bind,ro device && exec "$@"' - "$@"; }
fi
same "$(readonly_run "$tool" get device "$abc")" abc
unchanged device 0 "."
expect 0 "^$abc" ls split --slots 2 --pack-dir packs
expect 0 "^$abc" ls split --pack-dir packs
expect 1 "blobring init" rm device "$abc"

# The newest pack is damaged: the older generation can be read, and nothing is
# written that could cover what is left of the newer one.
cp -r gone headless
flip_byte gone/1.pak 100
cp -r gone erasing
unchanged gone 1 "invalid Pack file|damaged"
for change in "put gone part1" "rm gone $abc" "repack gone"; do
  expect 1 "takes no changes.*blobring salvage gone NEW" $change
done
cmp gone/1.pak erasing/1.pak
expect 0 "slot 1 is current .sequence 1." repack --force gone
same "$(blobring get gone "$abc")" abc
expect 0 "$(hash part1)" put --on-damage erase erasing part1
expect 1 "." get erasing "$(hash part1)" -o got
cmp got part1

# The newest pack has lost its header, and does not say any more that it is the newest.
xyz=$(printf xyz | blobring put headless)
blobring repack headless
printf abcd | blobring put headless
dd if=/dev/zero of=headless/0.pak bs=24 count=1 conv=notrunc status=none
cp -r headless before.store
expect 1 "headless/0" ls headless
expect 1 "headless" put headless part1
diff -r headless before.store

# No pack can be loaded, which its header tells or only its contents do.
while read -r kind said; do
  blobring init $kind --slots 1
  blobring put $kind part1 part2
  blobring repack $kind
  case $kind in
    header) head -c 24 /dev/zero | tr '\0' '\377' | dd of=header/0.pak conv=notrunc status=none ;;
    contents) flip_byte contents/0.pak 50 ;; # of the digest
  esac
  cp -r $kind $kind.erased
  unchanged $kind 1 "."
  expect 1 "$said" put $kind part1
  expect 1 "recovered: 2 blobs" salvage $kind $kind.both
  expect 0 "$(hash part1)" put --on-damage erase $kind.erased part1
  same "$(blobring ls $kind.erased)" "$(hash part1)"
done <<ROWS
header no pack can be loaded.*nothing was changed
contents every file is kept under a new name
ROWS

# The last transaction of a journal is torn: said once, set aside, the rest goes on.
blobring init tail
blobring put tail part1
blobring put tail part2
flip_byte tail/0.jrn 100145 # of the digest
unchanged tail 0 "."
expect 0 "set aside|kept" put tail part3
same "$(blobring ls tail)" "$(hash part1 part3 | sort)"
expect 1 "recovered: 3 blobs" salvage tail all
