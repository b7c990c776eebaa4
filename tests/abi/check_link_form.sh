#!/bin/sh
# check_link_form.sh NM READELF LIBRARY INTERFACE_HEADER PROGRAM...: a program
# that loads the shared object carries no copy of the library beside it: it
# defines none of the names LIBRARY exports, but for the entry points of the
# default table that a program may override, and the exported data that the
# linker moved into the program by a copy relocation, where the library's own
# references go as well. Two copies in one process would each keep their own
# globals (the log, the modules, the tree).
nm_tool=$1 readelf=$2 lib=$3 header=$4; shift 4
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
soname=$("$readelf" -d "$lib" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ -n "$soname" ] || { echo "$lib has no SONAME"; exit 1; }
sed -n 's/^[[:space:]]*X(\([A-Za-z0-9_]*\),.*/\1/p' "$header" | sort -u >"$tmp/overridable"
"$nm_tool" -D --defined-only "$lib" | awk '{print $NF}' | sort -u | comm -23 - "$tmp/overridable" >"$tmp/exported"
[ -s "$tmp/exported" ] || { echo "no exported names in $lib"; exit 1; }
status=0 shared=0
for prog in "$@"; do
    "$readelf" -d "$prog" | grep -q "NEEDED.*\[$soname\]" || continue
    shared=$((shared + 1))
    "$readelf" -rW "$prog" | awk '$3 ~ /_COPY$/ { sub(/@.*/, "", $5); print $5 }' | sort -u >"$tmp/copied"
    twice=$("$nm_tool" --defined-only "$prog" | awk '{print $NF}' | sort -u | comm -12 - "$tmp/exported" |
            comm -23 - "$tmp/copied")
    [ -z "$twice" ] || { echo "$(basename "$prog") loads $soname and has its own copy of:"; echo "$twice" | head -n 5; status=1; }
done
[ $shared -gt 0 ] || { echo "no program loads $soname"; exit 1; }
[ $status -eq 0 ] && echo "$shared programs load $soname and hold no copy of the library"
exit $status
