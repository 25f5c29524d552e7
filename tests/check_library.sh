#!/bin/sh
# Checks the shipped library's interface: it exports exactly the CfgFile_*
# operations its public header declares, has its SONAME, and needs nothing of
# libstdc++ at run time.
# usage: check_library.sh path/to/libcfgfile.so path/to/cfgfile_api.h
set -eu
lib=$1
header=$2
status=0

exported=$(${NM:-nm} -D --defined-only "$lib" | awk '$2 ~ /^[TWDBRV]$/ {print $3}' | sort)
stray=$(printf '%s\n' "$exported" | grep -v '^CfgFile_' || true)
if [ -n "$stray" ]; then
    echo "exported beyond CfgFile_*:"; printf '  %s\n' $stray; status=1
fi
declared=$(grep -o 'CFGFILE_API int CfgFile_[A-Za-z0-9]*' "$header" | sed 's/.* //' | sort)
defined=$(printf '%s\n' "$exported" | grep '^CfgFile_' || true)
if [ "$defined" != "$declared" ]; then
    echo "exported operations differ from those the header declares:"
    echo "  exported: $(echo $defined)"
    echo "  declared: $(echo $declared)"
    status=1
fi
count=$(printf '%s\n' "$exported" | grep -c '^CfgFile_')

soname=$(${OBJDUMP:-objdump} -p "$lib" | awk '/SONAME/ {print $2}')
if [ "$soname" != "libcfgfile.so.1" ]; then
    echo "SONAME is '$soname', expected libcfgfile.so.1"; status=1
fi

needed=$(${OBJDUMP:-objdump} -p "$lib" | awk '/NEEDED/ {print $2}')
for n in $needed; do
    case "$n" in
        libc.so.*|libdbgtrace.so.*|ld-linux*) ;;
        *) echo "unexpected run-time dependency: $n"; status=1 ;;
    esac
done

[ $status -eq 0 ] && echo "interface ok: $count operations, SONAME $soname, needs: $(echo $needed)"
exit $status
