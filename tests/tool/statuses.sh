# Every command's exit statuses, in one table.
. "$(dirname "$0")/support.sh" "$@"

mkdir fresh && cd fresh
mkdir tree
printf abc >tree/abc
head -c 5000 /dev/urandom >tree/random
abc=$(hash tree/abc)
absent=${abc//[0-9]/f}
blobring init s
blobring import s tree -m m
blobring init empty
blobring init other
printf x | blobring put other
cp -r s dirty
: >dirty/.blobring-1-0.tmp
cp s/0.jrn dirty/0.jrn.kept-1
printf y | blobring put dirty # and then abc and random are still there
cp other/0.jrn dirty/1.jrn.kept-1
cp -r s damaged
blobring repack damaged
cp -r damaged flipped
flip_byte damaged/1.pak 120
flip_byte flipped/1.pak 120
cp -r s lost
flip_byte lost/0.jrn 10
echo "$absent  gone" >missing
echo "$abc gone" >malformed
: >nothing
{ printf '0123456789\1\2\3\4\5\6'; cat m; } >broken.chk
cd ..

while read -r wanted line; do
  rm -rf run && cp -r fresh run && cd run
  eval "set -- $line"
  status=0
  lock=()
  if [ "${1-}" = held ]; then
    shift
    lock=(flock s/0.pak)
  fi
  "${lock[@]}" "$tool" "$@" >../out 2>&1 </dev/null || status=$?
  cd ..
  [ "$status" -eq "$wanted" ] || fail "blobring $line: status $status, wanted $wanted: $(cat out)"
done <<'ROWS'
2
2 frobnicate s
2 ls s --frobnicate
0 help ls
2 help frobnicate
0 init new
0 init s
2 init s --slots 3
1 init m
0 put s m
1 put s absent
1 put damaged m
2 put
3 held put s m
0 put --dry-run s m
0 held put --dry-run s m
0 get s $abc
0 held get s ${abc:0:6}
4 get s $absent
2 get s ${abc:0:5}
1 get flipped $abc
1 get absent $abc
0 ls s
0 held ls s
4 ls s $absent
2 ls s xyz
1 ls damaged
0 held stat s
1 stat damaged
0 log s
0 inspect s
1 inspect absent
0 check s
0 held check s
1 check damaged
0 diff s m
1 diff s other
0 verify s m
0 held verify s m
4 verify s missing
1 verify flipped m
2 verify s malformed
1 verify s absent
1 verify s broken.chk
4 verify s nothing
2 verify s m --write m
0 rm s $abc
0 rm s ${abc:0:6}
3 held rm s $abc
4 rm s $absent
4 rm s $abc $absent
2 rm s
2 rm s $abc --not-in m
1 rm damaged $abc
0 rm --dry-run s $abc
4 rm s --not-in m
2 rm s --not-in nothing
2 rm s --not-in missing
2 rm s --not-in m malformed
1 rm s --not-in absent
0 import s tree -m new
3 held import s tree -m new
1 import s absent -m new
2 import s tree -m m
1 import damaged tree -m new
0 import --dry-run s tree
1 import --dry-run damaged tree
0 export s m new
0 held export s m new
1 export s missing new
2 export s malformed new
1 export s m tree
0 export s m tree --force
0 export --dry-run s m new
1 export --dry-run s m tree
0 copy s empty $abc
0 copy s empty ${abc:0:6}
4 copy s empty $absent
2 copy s empty ${abc:0:5}
2 copy s empty
3 held copy other s $(printf x | md5sum | cut -c-32)
0 held copy s empty $abc
1 copy s damaged $abc
0 sync s empty
0 sync s s
1 sync damaged empty
1 sync s absent
3 held sync other s
0 sync --dry-run s empty
1 sync --dry-run s damaged
0 repack s
1 repack damaged
0 repack --force damaged
3 held repack s
4 repack --if-dead 50% s
0 repack --if-dead 0% s
2 repack --if-dead 101% s
0 repack --dry-run s
0 salvage s new
1 salvage damaged new
2 salvage s empty
1 salvage tree new
0 salvage --dry-run s new
4 clean s
0 clean dirty
1 clean --delete dirty
0 clean --delete --force dirty
0 clean --delete --dry-run dirty
4 held clean s
3 held clean --delete s
1 clean --delete damaged
ROWS
