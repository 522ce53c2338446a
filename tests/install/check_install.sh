#!/usr/bin/env bash
# check_install.sh BUILD_DIR SOURCE_DIR FRAME_TOOL TARNO CXX
#
# Installs the library into an empty folder, builds the example outside the tree against it, once
# with CMake and once with pkg-config, runs the shipped model with both on the shipped frame, and
# compares their maps with what the tarno command writes. Also: each umbrella header compiles alone
# without a warning, and nothing but the interface is exported.
set -euo pipefail
build=$1 source=$2 frame_tool=$3 tarno=$4 cxx=$5

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
model=$source/assets/models/portrait_segmentation.zqnet
frame=$source/assets/frames/portrait.png

DESTDIR='' cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(dirname "$(find "$prefix" -name libtarno.so)")
export LD_LIBRARY_PATH=$libdir

for header in log model cpu gpu; do
    echo "#include <tarno/$header.h>" >"$work/$header.cpp"
    "$cxx" -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$prefix/include" \
        "$work/$header.cpp"
done

foreign=$(nm -DC --defined-only "$libdir/libtarno.so" | awk '{$1=""; $2=""; print}' |
    sed 's/^ *//' |
    grep -vE '^(typeinfo (name )?for |vtable for |VTT for |guard variable for )?(TarnoCPU::|Tarno::|tesk::|ZQ|zq_)|^(GetModelVersion|tesk_Init|tesk_UnInit|tesk_CheckGLVersion)$' || true)
if [ -n "$foreign" ]; then
    echo "exported beside the interface:" >&2
    echo "$foreign" | head >&2
    exit 1
fi

cmake -S "$source/examples/segment_frame" -B "$work/with_cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/with_cmake" >/dev/null

export PKG_CONFIG_PATH=$libdir/pkgconfig
mkdir "$work/with_pkg_config"
# shellcheck disable=SC2046
"$cxx" -std=c++17 -O2 "$source/examples/segment_frame/main.cpp" \
    $(pkg-config --cflags --libs tarno) -o "$work/with_pkg_config/segment_frame"

"$frame_tool" to-ppm "$frame" "$work/frame.ppm"
"$tarno" run --model "$model" --input "$frame" --mean 123.675,116.28,103.53 \
    --norm 0.003921569,0.003921569,0.003921569 --output "$work/mask.png" >/dev/null
for way in with_cmake with_pkg_config; do
    "$work/$way/segment_frame" "$model" "$work/frame.ppm" "$work/$way.pgm"
    "$frame_tool" compare "$work/$way.pgm" "$work/mask.png" 1
done

# Every factory can be called from outside.
cat >"$work/factories.cpp" <<'CODE'
#include <tarno/cpu.h>

#include <cstdio>
#include <memory>

int main() {
    int count = 0;
#define TN_OPERATOR(class_name, ...)                                                        \
    {                                                                                       \
        std::unique_ptr<TarnoCPU::Operator> made(TarnoCPU::class_name##_operator_creator()); \
        if (made == nullptr || made->name() != #class_name) return 1;                       \
        ++count;                                                                            \
    }
#include <tarno/cpu/operators.def>
    std::printf("%d factories\n", count);
    return count >= 95 ? 0 : 1;
}
CODE
# shellcheck disable=SC2046
"$cxx" -std=c++17 "$work/factories.cpp" $(pkg-config --cflags --libs tarno) -o "$work/factories"
"$work/factories"

# The detector: frames as a camera gives them, with the default operators and with a table compiled
# in. A grey level is the rounding of an 8-bit mask.
"$tarno" tune --model "$model" --output "$work/table.h" >/dev/null
# The default rule has plain loops for the depthwise layers, at less than half the speed of the
# hand-blocked members: a table without any of them was not tuned.
grep -q 'TarnoCPU::.*Depthewise_Convolution_3x3' "$work/table.h"
cmake -S "$source/examples/portrait_cpu" -B "$work/portrait" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/portrait" >/dev/null
cmake -S "$source/examples/portrait_cpu" -B "$work/portrait_tuned" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DPORTRAIT_TABLE="$work/table.h" >/dev/null
cmake --build "$work/portrait_tuned" >/dev/null
for format in rgba nv21 nv12; do
    "$frame_tool" "to-$format" "$frame" "$work/frame.$format"
    "$work/portrait/portrait_cpu" "$model" "$format" 512x512 "$work/frame.$format" "$work/$format.pgm"
    "$work/portrait_tuned/portrait_cpu" "$model" "$format" 512x512 "$work/frame.$format" \
        "$work/$format.tuned.pgm"
    "$frame_tool" compare "$work/$format.pgm" "$work/$format.tuned.pgm" 1
done
# Four bytes a pixel carry what the command saw.
"$frame_tool" compare "$work/rgba.pgm" "$work/mask.png" 1
# For frames of luma and chroma, the pixels that the net must see are worked out apart from the
# library, bit for bit, and go through the example that takes plain pixels. Both programs run the same
# operators on the same numbers then: not one level of the masks may differ. Chroma is halved on the
# way and bright colours wrap in the front end's conversion, so that the mask shows the person, but
# is not the picture's own.
for format in nv21 nv12; do
    "$frame_tool" yuv-to-ppm "$format" 512x512 "$work/frame.$format" 256x256 "$work/$format.ppm"
    "$work/with_cmake/segment_frame" "$model" "$work/$format.ppm" "$work/$format.expected.pgm" >/dev/null
    "$frame_tool" compare "$work/$format.pgm" "$work/$format.expected.pgm" 0
    "$frame_tool" overlap "$work/$format.pgm" "$work/mask.png" 80
done
# What the comparison is worth: the same frame with its chroma the wrong way round.
"$frame_tool" yuv-to-ppm nv12 512x512 "$work/frame.nv21" 256x256 "$work/swapped.ppm"
"$work/with_cmake/segment_frame" "$model" "$work/swapped.ppm" "$work/swapped.pgm" >/dev/null
if "$frame_tool" compare "$work/nv21.pgm" "$work/swapped.pgm" 16; then
    echo "a mask does not show that U and V were swapped" >&2
    exit 1
fi

# A host that feeds it rubbish gets an answer, not a crash.
head -c 5000 "$model" >"$work/cut.zqnet"
if "$work/with_cmake/segment_frame" "$work/cut.zqnet" "$work/frame.ppm" "$work/none.pgm" \
    2>/dev/null; then
    echo "a truncated model was taken for a whole one" >&2
    exit 1
fi
[ ! -e "$work/none.pgm" ]
echo "both programs agree with the tarno command"
