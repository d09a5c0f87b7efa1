# Damage, a file that cannot grow, a killed process: what was committed stays,
# and whoever asks is told.
. "$(dirname "$0")/support.sh" "$@"

# Killed in the middle: every line that was printed stands for a blob that is there.
mkdir tree
for ((i = 0; i < 2500; ++i)); do echo "file $i" >"tree/$i"; done
blobring init killed 2>/dev/null
blobring import killed tree >printed 2>/dev/null &
until [ -s printed ] || ! kill -0 $! 2>/dev/null; do :; done
kill -9 $! 2>/dev/null || true
wait $! 2>/dev/null || true
head -n "$(wc -l <printed)" printed >whole
[ "$(wc -l <whole)" -ge 1000 ] || fail "$(wc -l <whole) lines were printed"
expect 0 "every blob is sound" fsck killed
expect 0 "restored $(wc -l <whole) files" export killed whole restored
(cd restored && md5sum --quiet -c ../whole)
expect 0 "imported 2500 files" import killed tree -m m

# A journal that cannot grow: no hash is printed that is not safe, what was committed stays.
blobring init full 2>/dev/null
for i in 1 2 3; do head -c 100000 /dev/urandom >"part$i"; done
blobring put full part1 >printed
status=0
(trap '' XFSZ; ulimit -f 250; blobring put full part2 part3 >printed2 2>error) || status=$?
same "$status $(wc -l <printed2)" "1 0"
grep -q "cannot commit: .*may not grow further" error || fail "$(cat error)"
expect 0 "every blob is sound" fsck full
same "$(blobring ls full)" "$(cat printed)"
blobring put full part2 part3 >printed2
same "$(cat printed2)" "$(md5sum part2 part3 | cut -c-32)"
blobring get full "$(head -1 printed)" >/dev/full 2>error && fail "a full disk went unseen"
grep -q "standard output: No space left" error || fail "$(cat error)"
blobring get full "$(head -1 printed)" -o - | cmp - part1

# A missing or impossible file ends every command before the library sees it.
blobring init gone 2>/dev/null
abc=$(printf abc | blobring put gone)
blobring repack gone 2>/dev/null
mv gone/1.pak aside
expect 1 "gone/1.pak is missing; nothing was changed" ls gone
mv aside gone/1.pak
mv gone/0.jrn aside
expect 1 "gone/0.jrn is missing; nothing was changed" put gone part1
mv aside gone/0.jrn
same "$(blobring get gone "$abc")" abc
cp -r gone broken
for slot in 0 1; do printf '\xff\xff\xff\x7f' | dd of=broken/$slot.pak bs=1 seek=20 conv=notrunc status=none; done
cp -r broken before
expect 1 "no pack can be loaded: the header of broken/0.pak is damaged" fsck broken
diff -r broken before
expect 1 "no pack can be loaded" put broken part1 --on-damage keep
expect 1 "no pack can be loaded.*blobring salvage broken NEW" repack --force broken
diff -r broken before

# A store that is to come back by itself does so empty, with the library's words;
# what is missing is not damaged.
mv broken/1.pak aside
expect 1 "broken/1.pak is missing" ls broken --on-damage erase
mv aside broken/1.pak
cp -r broken taken
rm taken/blobring.conf
expect 1 "no pack can be loaded" init taken
for store in broken taken; do
  command=$([ -e $store/blobring.conf ] && echo ls || echo init)
  expect 0 "reseting all files.  All data is lost" $command --on-damage erase $store
  grep -q "the store $store was erased and is empty now" expect.out || fail "$(cat expect.out)"
  expect 0 "every blob is sound" fsck $store
  printf abc | blobring put $store >/dev/null
  same "$(blobring ls $store) $(figure $store sequence)" "$abc 0"
done

# The newest pack is damaged: the older generation can be read, and nothing is
# written that could cover what is left of the newer one.
cp -r gone headless
flip_byte gone/1.pak 100
cp gone/1.pak before.pak
cp -r gone erasing
expect 0 "invalid Pack file" ls gone
expect 1 "takes no changes" put gone part1
expect 1 "takes no changes" repack gone
expect 1 "damage" fsck gone
cmp gone/1.pak before.pak
expect 0 "slot 1 is current .sequence 1." repack --force gone
expect 0 "every blob is sound" fsck gone
blobring put gone part1 >/dev/null
same "$(blobring get gone "$abc")" abc
expect 0 "invalid Pack file" put --on-damage erase erasing part1
expect 1 "the store was damaged" fsck --on-damage erase erasing
blobring get erasing "$(md5sum <part1 | cut -c-32)" 2>/dev/null | cmp - part1

# The newest pack has lost its header, and does not say any more that it is the newest.
blobring rm headless "$abc" 2>/dev/null
xyz=$(printf xyz | blobring put headless)
blobring repack headless 2>/dev/null
printf abc | blobring put headless >/dev/null
dd if=/dev/zero of=headless/0.pak bs=24 count=1 conv=notrunc status=none
cp headless/0.pak before.pak
expect 0 "the header of headless/0.pak is damaged" ls headless
expect 1 "takes no changes.*blobring salvage headless NEW" put headless part1
expect 1 "is damaged; .blobring salvage headless NEW" fsck headless
cmp headless/0.pak before.pak
expect 1 "recovered: 2 blobs" salvage headless rescued
same "$(blobring get rescued "$xyz")" xyz
expect 0 "slot 0 is current" repack --force headless
cmp headless/0.pak.kept-1 before.pak
expect 0 "every blob is sound" fsck headless

# The only pack is damaged beyond its header: moved aside, or erased.
blobring init only --slots 1 2>/dev/null
blobring put only part1 part2 >two
blobring repack only 2>/dev/null
flip_byte only/0.pak 100
cp -r only erased
expect 0 "every file is kept under a new name, the store goes on empty" ls only
cmp only/0.pak.kept-1 erased/0.pak
expect 0 "blobring salvage only NEW" fsck only
expect 1 "recovered: 2 blobs" salvage only both
same "$(blobring ls both)" "$(sort two)"
expect 0 "DeleteFiles.. was successful" stat --on-damage erase erased
same "$(blobring ls erased; ls erased | tr '\n' ' ')" "0.jrn 0.pak blobring.conf "

# The last transaction of a journal is damaged: said once, set aside, then usable.
blobring init tail 2>/dev/null
blobring put tail part1 >/dev/null
blobring put tail part2 >/dev/null
flip_byte tail/0.jrn 150000
expect 1 "journal file corrupt" put tail part3
expect 0 "set aside" fsck tail
same "$(blobring ls tail)" "$(md5sum <part1 | cut -c-32)"
ls tail/0.jrn.kept-* >/dev/null
blobring put tail part3 >/dev/null
expect 0 "every blob is sound" fsck tail
