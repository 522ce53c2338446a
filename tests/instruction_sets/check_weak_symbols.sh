#!/usr/bin/env bash
# check_weak_symbols.sh OBJECT...
#
# Fails when a function with a weak symbol holds an instruction above the baseline of x86-64. The
# linker keeps one copy of a weak function for the whole program: one that was compiled with AVX in
# a kernel's unit could end up in code that must run without. The objects are unoptimised ones, in
# which every inline function still stands as a function of its own.
set -euo pipefail
[ $# -gt 0 ] || { echo "usage: check_weak_symbols.sh OBJECT..." >&2; exit 2; }

found=0
above=0
for object in "$@"; do
    weak=$(mktemp)
    nm "$object" | awk '$2 ~ /^[WVuw]$/ {print $3}' >"$weak"
    # VEX and EVEX mnemonics start with v (verr and verw are not generated); the others are the legacy
    # forms of SSE3 to SSE4.2, AES and carry-less products, and what counts and shuffles bits: POPCNT,
    # LZCNT, BMI and MOVBE. TZCNT is left out: compilers write the baseline's BSF with its prefix.
    result=$(objdump -d --no-show-raw-insn "$object" | awk -v weak_file="$weak" '
        BEGIN {
            while ((getline name < weak_file) > 0) weak[name] = 1
            sse3 = "haddp[sd]|hsubp[sd]|addsubp[sd]|lddqu|movddup|movs[hl]dup|fisttp[ls]*|monitor|mwait"
            ssse3 = "pshufb|ph(add|sub)(w|d|sw)|pmaddubsw|pmulhrsw|psign[bwd]|pabs[bwd]|palignr"
            sse41 = "dpp[sd]|blendv?p[sd]|pblend(vb|w)|insertps|extractps|pinsr[bdq]|pextr[bdq]" \
                "|pmulld|pmuldq|pmov[sz]x(bw|bd|bq|wd|wq|dq)|ptest|round[ps][sd]" \
                "|pm(ax|in)(sb|sd|uw|ud)|packusdw|pcmpeqq|mpsadbw|phminposuw|movntdqa"
            sse42 = "pcmpgtq|pcmp[ei]str[im]|crc32[bwlq]?"
            bits = "popcnt[wlq]?|lzcnt[wlq]?|andn[lq]?|bextr[lq]?|bls(i|r|msk)[lq]?|bzhi[lq]?" \
                "|mulx[lq]?|p(dep|ext)[lq]?|(ror|sar|shl|shr)x[lq]?|movbe[wlq]?|aes[a-z0-9]+|pclmul[a-z]*"
            legacy = "^(" sse3 "|" ssse3 "|" sse41 "|" sse42 "|" bits ")$"
        }
        /^[0-9a-f]+ <.*>:$/ {
            name = $2; sub(/^</, "", name); sub(/>:$/, "", name); next
        }
        /^ *[0-9a-f]+:/ {
            op = $2
            if (op ~ /^v/ || op ~ legacy) {
                above++
                if (name in weak && !(name in told)) { told[name] = 1; print "weak " name " has " op }
            }
        }
        END { print "above " above + 0 }')
    rm -f "$weak"
    above=$((above + $(sed -n 's/^above //p' <<<"$result")))
    if grep -q '^weak ' <<<"$result"; then
        found=1
        grep '^weak ' <<<"$result" | sed "s|^|$(basename "$object"): |" | c++filt
    fi
done
echo "$above instructions above the baseline in $# objects"
# No such instruction at all would mean that the check looks at the wrong objects.
[ "$above" -gt 0 ] || { echo "nothing to check" >&2; exit 1; }
exit $found
