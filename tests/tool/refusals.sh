# What is refused, with which status, and what the message says to do; and where
# results may go. Nothing else changes.
sources=$(cd "$(dirname "$0")/../.." && pwd)
. "$(dirname "$0")/support.sh" "$@"

expect 0 "store with 2 slots" init s
abc=$(printf abc | blobring put s)
none=00000000000000000000000000000000
mkdir plain used fifo
echo mine >used/f
mkfifo fifo/blobring.conf pipe
echo "$abc  f" >good
echo "$abc f" >one-space
echo "${abc}0  f" >long-hash
printf '\\%s  a\\q\n' "$abc" >bad-escape
printf '%s  a\0b\n' "$abc" >zero-byte
for name in /tmp/x ../x a/../../x .. . a/.. a/ a/.; do
  printf '%s  ok\n%s  %s\n' "$abc" "$abc" "$name" >"unsafe-${name//\//_}"
done
ln -s used/f link
expect 0 "packs in .*/p" init far --pack-dir p
cp -r s before

rows <<'ROWS'
2 ^blobring:.*subcommand
2 ^blobring:.there.is.no.command."frob" frob s
2 ^blobring:.*STORE put
2 HASH get s
2 HASH rm s
2 MANIFEST export s
2 no.hash get s abc
2 no.hash rm s $abc 0123456789abcdef0123456789abcdeg
2 not.expected ls s surplus
2 not.expected ls s --on-damage erase
2 on-damage put s --on-damage maybe
2 s.has.2.slots ls s --slots 3
2 in.range.1.to.1000 init x --slots 0
2 more.than.1.slots init x --slots 1 --pack-dir a --pack-dir b
2 already.*cannot.be.changed init s --slots 3
2 already.*cannot.be.changed init s --pack-dir used
2 p/0.pak.is.not.a.pack.of.x init x --pack-dir p
2 0.pak.is.not.a.pack.of.p init p
0 already;.nothing.was.changed init s
1 blobring.init ls plain
1 blobring.init put nowhere used/f
1 not.a.regular.file ls fifo
1 has.no.blob get s $none
1 has.no.blob get s $none -o x
1 No.such.file put s nowhere
1 directory.*import put s used
1 No.such.file import s nowhere
1 directory import s used -m nowhere/m
2 good.exists;.--force import s used -m good
2 link.is.a.symbolic.link import s used --force -m link
2 link.is.a.symbolic.link get s $abc -o link
2 used.is.a.directory get s $abc -o used
1 No.such.file export s nowhere x
2 line.1:.wanted.a.hash export s one-space x
2 line.1 export s long-hash x
2 line.1 export s bad-escape x
2 line.1 export s zero-byte x
1 exists.and.was.kept export s good used
1 directory export s good good
0 1.0 --version
0 import.*store.every --help
ROWS
for manifest in unsafe-*; do
  expect 2 "nothing was written" export s "$manifest" x
done
[ ! -e x ] || fail "something was written for a request that was refused"
same "$(cat used/f)" mine
diff -r s before

# No link leads out of the directory, neither as a directory nor as the file itself.
mkdir -p out in
echo untouched >out/f
ln -s ../out in/link
ln -s ../out/f in/f
echo "$abc  link/f" >through
expect 1 "link is there and is no directory" export --force s through in
expect 0 "restored 1 file" export --force s good in
same "$(cat out/f) $(cat in/f)" "untouched abc"
[ ! -L in/f ] || fail "the link was kept"

# A file is replaced with its mode, a pipe or device is written.
chmod 640 used/f
: >used/.blobring-7-1.tmp # of a killed command
blobring get s "${abc^^}" -o used/f
same "$(cat used/f) $(stat -c %a used/f) $(ls -A used)" "abc 640 f"
cat pipe >read &
blobring get s "$abc" -o pipe
wait
cat pipe >>read &
blobring import s used -m pipe 2>/dev/null
wait
same "$(cat read)" "abc$abc  ./f"
same "$(blobring get s "$abc" -o /dev/stdout | cat)" abc
blobring get s "$abc" -o /dev/stdout >to
same "$(cat to)" abc
[ -L /dev/stdout ] && [ -p pipe ] || fail "a pipe or device was replaced"

blobring put s good link >/dev/null

# Hashes from standard input; each counts once; the reader may use the store.
printf 1 >one && printf 2 >two
blobring put s one two <&- | cat >hashes
same "$(blobring get s - <hashes)" 12
same "$(blobring ls -l s)" "$({ echo "$abc 3"; sed 's/$/ 1/' hashes; echo "$(md5sum <good | cut -c-32) 36"; } | sort)"
blobring rm s - <<<"$(cat hashes hashes)" 2>said
same "$(cut -d';' -f1 said)" "blobring: 2 blobs deleted"
expect 1 "1 blob deleted" rm s "$(head -1 hashes)" "$(md5sum <good | cut -c-32)"
blobring ls s | xargs "$tool" rm s 2>said
same "$(cut -d';' -f1 said) $(blobring ls s)" "blobring: 1 blob deleted "

# A good file beside bad ones is stored.
mkdir tree
truncate -s 2147483532 tree/big
printf good >tree/good
expect 1 "tree/big: it is too large, a blob has at most 2147483531 bytes" import s tree -m m
same "$(cut -c35- m)" ./good
status=0
blobring import s tree --force -m m >&- 2>&- || status=$? # no message may get into the manifest
same "$status $(cut -c35- m)" "1 ./good"
expect 1 "^$(md5sum <tree/good | cut -c-32)$" put s nowhere tree/good

# One process at a time, but not while one waits for its input.
status=0
flock s/0.pak "$tool" put s good 2>said || status=$?
same "$status" 1
grep -q "another process has the store open; wait" said || fail "$(cat said)"
blobring put s two pipe >held &
first=$!
exec 3>pipe
expect 0 "good|[0-9a-f]{32}" ls s
printf xyz >&3
exec 3>&-
wait $first
same "$(cat held)" "$(md5sum <two | cut -c-32)"$'\n'"$(printf xyz | md5sum | cut -c-32)"

# A store without its conf: taken over with the same slots, never with others.
rm s/blobring.conf
expect 1 "blobring init s" put s good
expect 2 "repeat init with --slots 2" init s --slots 3
expect 2 "repeat init with --slots 2" init s --slots 1
expect 0 "store with 2 slots" init s
same "$(blobring get s "$(tail -1 held)")" xyz
for conf in 'blobring 2' 'slot .' $'blobring 1\nslot relative' 'blobring 1'; do
  printf '%s\n' "$conf" >s/blobring.conf
  expect 1 "s/blobring.conf" ls s
done

# The manual page, the completion and the guide know every command and option of --help.
sed 's/\\-/-/g' "$sources/man/blobring.1.in" >page
. "$sources/completions/blobring"
commands=$("$tool" --help | awk '/^Subcommands:/ { on = 1; next } on && /^  [a-z]/ { print $1 }')
[ "$(wc -w <<<"$commands")" -ge 11 ] || fail "too few commands: $commands"
COMP_WORDS=(blobring '') COMP_CWORD=1
_blobring
offered=" ${COMPREPLY[*]} "
for command in $commands; do
  grep -q "^\.BI \"blobring $command" page || fail "$command is not in the synopsis"
  grep -q "^\.B $command$" page || fail "$command is not described"
  grep -q "^| \`$command " "$sources/docs/tool.md" || fail "$command is not in docs/tool.md"
  [[ $offered == *" $command "* ]] || fail "$command is not completed"
  COMP_WORDS=(blobring "$command" -) COMP_CWORD=2
  _blobring
  while IFS=, read -r -a names; do
    grep -qwe "${names[0]}" page || grep -qwe "${names[-1]}" page || fail "$command ${names[*]} is not in the manual"
    [[ " ${COMPREPLY[*]} " == *" ${names[-1]} "* ]] || fail "$command ${names[*]} is not completed"
  done < <("$tool" "$command" --help | grep -oE '^  -[a-z,-]+' | tr -d ' ')
done
