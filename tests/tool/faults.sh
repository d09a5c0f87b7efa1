# Damage, a file that cannot grow, a killed process: what was committed stays,
# and whoever asks is told.
. "$(dirname "$0")/support.sh" "$@"

# A journal that cannot grow: no hash is printed that is not safe, what was committed stays.
blobring init full 2>/dev/null
for i in 1 2 3; do head -c 100000 /dev/urandom >"part$i"; done
blobring put full part1 >printed
status=0
(ulimit -f 250; blobring put full part2 part3 >printed2 2>error) || status=$?
same "$status $(wc -l <printed2)" "1 0"
grep -q "commit: .*may not grow further" error || fail "$(cat error)"
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

# The newest pack is damaged: the older generation can be read, and nothing is
# written that could cover what is left of the newer one.
cp -r gone headless
flip_byte gone/1.pak 100
cp gone/1.pak before.pak
cp -r gone erasing
expect 1 "invalid Pack file" ls gone
expect 1 "takes no changes" put gone part1
expect 1 "takes no changes" repack gone
expect 1 "damage" fsck gone
cmp gone/1.pak before.pak
expect 0 "slot 1 is current .sequence 1." repack --force gone
expect 0 "every blob is sound" fsck gone
blobring put gone part1 >/dev/null
same "$(blobring get gone "$abc")" abc
expect 0 "invalid Pack file" put --on-damage erase erasing part1
expect 1 "." get erasing "$(md5sum <part1 | cut -c-32)" -o got
cmp got part1

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
