#!/bin/sh
# Makes a compressed manual page from what a program says with --help, so that there is one text of it.
#   manpage.sh OUT.gz NAME SECTION VERSION TITLE PROGRAM...
# What begins in column 1 is prose or a heading; the lists between keep their columns.
set -eu
out=$1 name=$2 section=$3 version=$4 title=$5
shift 5
mkdir -p "$(dirname "$out")"
timeout 20 "$@" --help >"$out.help" </dev/null
# shellcheck disable=SC2016 # the program is awk's
awk -v name="$name" -v section="$section" -v version="$version" -v title="$title" '
function escaped(line) {
    gsub(/\\/, "\\e", line)
    gsub(/-/, "\\-", line)
    return line ~ /^[.\x27]/ ? "\\&" line : line
}
function listing(wanted) {
    if (wanted != within)
        print wanted ? ".nf" : ".fi"
    within = wanted
}
BEGIN {
    printf ".TH %s %s \"\" \"Orx %s\" \"Orx\"\n", toupper(name), section, version
    printf ".SH NAME\n%s \\- %s\n.SH SYNOPSIS\n.nf\n", name, escaped(title)
    within = 1
}
{ sub(/\r$/, "") }
!described && /^Usage: ?/ { sub(/^Usage: ?/, ""); print escaped($0); next }
!described && /^       / { print escaped(substr($0, 8)); next }
!described && /^$/ { next }
!described { listing(0); print ".SH DESCRIPTION"; described = 1 }
/^$/ { listing(0); print ".PP"; next }
/^ / { listing(1); print escaped($0); next }
{ listing(0); print escaped($0) }
END {
    listing(0)
    print ".SH SEE ALSO"
    print name == "orx" ? ".BR orxpush (1),\n.BR orxrec (1)" : ".BR orx (8)"
}' "$out.help" | gzip -9n >"$out"
rm "$out.help"
