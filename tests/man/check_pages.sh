#!/bin/sh
# check_pages.sh MAN_DIR APPS_DIR: every page of MAN_DIR passes mandoc's lint
# and groff's warnings without a message, and every program of APPS_DIR has
# its page in section 1.
man=$1 apps=$2
status=0
for page in "$man"/*.[0-9]; do
    out=$(mandoc -Tlint -W warning "$page" 2>&1; LC_ALL=C groff -ww -mandoc -z "$page" 2>&1)
    [ -z "$out" ] || { echo "$out"; status=1; }
done
for src in "$apps"/*.cpp; do
    name=$(basename "$src" .cpp)
    [ -f "$man/$name.1" ] || { echo "$name has no page $man/$name.1"; status=1; }
done
[ $status -eq 0 ] && echo "$(ls "$man"/*.[0-9] | wc -l) pages clean"
exit $status
