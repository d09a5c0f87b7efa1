# Names that trees have and shells fear, into a manifest and back.
. "$(dirname "$0")/support.sh" "$@"

mkdir -p tree/$'dir\nwith newline' "tree/ "
names=('-' '--help' ' leading' '*star' 'back\slash' $'new\nline' $'return\r' $'\\n' $'\xff\xfe not UTF-8' 'trailing '
  $'\x01\x1b[2J' "$(printf 'n%.0s' {1..255})" '#comment' $'dir\nwith newline/x' ' /y')
for name in "${names[@]}"; do
  printf '%s' "$name" >"tree/$name"
done

blobring init s 2>/dev/null
expect 0 "imported ${#names[@]} files" import s tree -m manifest
(cd tree && md5sum --quiet --strict -c ../manifest) || fail "md5sum does not agree with the manifest"
same "$(sort manifest)" "$(cd tree && find . -type f -exec md5sum {} + | sort)"
expect 0 "restored ${#names[@]} files" export s manifest restored
diff -r tree restored

# What md5sum itself writes is taken too: binary mark, no "./", CR LF, a comment.
(cd tree && { echo '# a comment'; md5sum -b -- '*star' 'trailing ' '#comment'; } | sed 's/$/\r/') >manifest.md5sum
expect 0 "restored 3 files" export s manifest.md5sum restored3
cmp 'tree/trailing ' 'restored3/trailing '
cmp 'tree/#comment' 'restored3/#comment'

# No name reaches the terminal as it is.
chmod 000 tree/$'\x01\x1b[2J'
if [ "$(id -u)" -ne 0 ]; then
  expect 1 'cannot read tree/\?\?\[2J: Permission denied' import s tree -m manifest.partial
  same "$(wc -l <manifest.partial)" $(($(wc -l <manifest) - 1))
fi
expect 0 'left out tree/\?link: a symbolic link' import s "$(ln -s x $'tree/\alink'; chmod 600 tree/*J; echo tree)" -v -m m

# A store inside the tree leaves itself out, and only itself.
mkdir inside
echo kept >inside/0.pak
blobring init inside/store 2>/dev/null
expect 0 "left out: 0 symbolic links, 0 special files, 5 files of the store" import inside/store inside -m m
same "$(cut -c35- m)" ./0.pak
