#!/usr/bin/env bash
# check_dialects.sh VALIDATOR FOLDER
#
# Fails when a shader of FOLDER is not valid in both dialects that it is meant for: as it stands,
# GLSL ES 3.10, and as OpenGL 4.3 sees it, with the version and precision lines gone and the
# precision qualifiers empty. The second form is made here, apart from the library that makes its own.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: check_dialects.sh VALIDATOR FOLDER" >&2; exit 2; }
validator=$1
folder=$2

# Shaders that GLSL ES cannot take, each with the reason behind it. They are checked as OpenGL 4.3
# alone, and one that passes as GLSL ES all the same fails the check.
es_exceptions=()

desktop=$(mktemp -d)
trap 'rm -rf "$desktop"' EXIT

failed=0
es=()
for shader in "$folder"/*.comp; do
    [ -e "$shader" ] || { echo "no shader in $folder" >&2; exit 1; }
    name=$(basename "$shader" .comp)
    if [ "$(head -n 1 "$shader")" != "#version 310 es" ]; then
        echo "$name: the first line is not \"#version 310 es\""
        failed=1
    fi
    {
        printf '#version 430\n#define highp\n#define mediump\n#define lowp\n'
        sed -E 's/#version 310 es//; s/precision (lowp|mediump|highp) float;//g' "$shader"
    } >"$desktop/$name.comp"
    if [[ " ${es_exceptions[*]-} " == *" $name "* ]]; then
        if "$validator" "$shader" >/dev/null 2>&1; then
            echo "$name: is an exception, and passes as GLSL ES 3.10 all the same"
            failed=1
        fi
    else
        es+=("$shader")
    fi
done

# validate DIALECT SHADER...: one run for all, the complaints with the name of the file before them.
validate() {
    local dialect=$1 report
    shift
    if ! report=$("$validator" "$@" 2>&1); then
        echo "as $dialect:"
        grep -B 1 '^\(ERROR\|WARNING\)' <<<"$report" || echo "$report"
        failed=1
    fi
}
validate "GLSL ES 3.10" "${es[@]}"
validate "OpenGL 4.3" "$desktop"/*.comp

echo "$((${#es[@]} + ${#es_exceptions[@]})) shaders, ${#es_exceptions[@]} of them not for GLSL ES"
exit $failed
