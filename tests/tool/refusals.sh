# What is refused, with which status, and what the message says to do. Nothing
# may have changed afterwards.
sources=$(cd "$(dirname "$0")/../.." && pwd)
. "$(dirname "$0")/support.sh" "$@"

blobring init s 2>/dev/null
abc=$(printf abc | blobring put s)
mkdir plain used
echo mine >used/f
echo "$abc  f" >good
echo "$abc f" >one-space
echo "${abc}0  f" >long-hash
printf '\\%s  a\\q\n' "$abc" >bad-escape
printf '%s  a\0b\n' "$abc" >zero-byte
for name in /tmp/x ../x a/../../x .. . a/.. a/ a/.; do
  printf '%s  ok\n%s  %s\n' "$abc" "$abc" "$name" >"unsafe-${name//\//_}"
done
cp -r s before

while read -r status pattern arguments; do
  eval "expect $status ${pattern@Q} $arguments"
done <<'ROWS'
2 subcommand
2 STORE put
2 HASH get s
2 HASH rm s
2 MANIFEST export s
2 no.hash get s abc
2 no.hash rm s $abc 0123456789abcdef0123456789abcdeg
2 not.expected ls s surplus
2 not.expected ls s --slots 3
2 on-damage ls s --on-damage maybe
2 in.range.1.to.1000 init x --slots 0
2 more.than.1.slots init x --slots 1 --pack-dir a --pack-dir b
2 cannot.be.changed init s --slots 3
2 cannot.be.changed init s --pack-dir used
1 blobring.init ls plain
1 blobring.init put nowhere used/f
1 has.no.blob get s 00000000000000000000000000000000
1 No.such.file put s nowhere
1 directory.*import put s used
1 No.such.file import s nowhere
1 directory import s used -m nowhere/m
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
[ ! -e x ] || fail "something was written for a manifest that was refused"
same "$(cat used/f)" mine
diff -r s before
expect 0 "restored 1 file" export --force s good used
same "$(cat used/f)" abc

# No link leads out of the directory, neither as a directory nor as the file itself.
mkdir -p out in
echo untouched >out/f
ln -s ../out in/link
ln -s ../out/f in/f
echo "$abc  link/f" >through
expect 1 "link is there and is no directory" export --force s through in
expect 0 "restored 1 file" export --force s good in
same "$(cat out/f)" untouched
[ ! -L in/f ] || fail "the link was kept"

# A good file beside bad ones is stored; 2 GiB are one byte too many.
truncate -s 2G tree-big
mkdir tree
mv tree-big tree/big
printf good >tree/good
expect 1 "tree/big: it has 2 GiB or more" import s tree -m m
same "$(cut -c35- m)" ./good
expect 1 "No such file" put s nowhere tree/good
same "$(grep -c "^$(md5sum <tree/good | cut -c-32)$" expect.out)" 1

# One process at a time: the first waits for its pipe with the store open.
mkfifo pipe
blobring put s pipe >held 2>&1 &
first=$!
until grep -q "another process" <(blobring ls s 2>&1); do
  kill -0 $first || fail "the first process is gone"
done
expect 1 "another process has the store open; wait" put s good
printf xyz >pipe
wait $first || fail "the first process failed: $(cat held)"
same "$(cat held)" "$(printf xyz | md5sum | cut -c-32)"
same "$(blobring get s "$(cat held)")" xyz

# A store without its conf: taken over with the same slots, never with others.
rm s/blobring.conf
expect 1 "blobring init s" ls s
expect 2 "repeat init with --slots 2" init s --slots 3
expect 2 "repeat init with --slots 2" init s --slots 1
expect 0 "store with 2 slots" init s
same "$(blobring get s "$abc")" abc
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
