#!/bin/sh
# Compiles every plug-in source (host/, image/, matte/) the way the Mac build does: with only
# the vendor SDK's include folders (Headers, Headers/SP, Util), the repository root and
# nothing else on the include path. Our sdk/ headers are staged into the vendor's folder
# layout, so a source that reaches into sdk/ by a relative path, or needs a header the
# vendor keeps elsewhere, fails here.
# Usage: vendor_layout_check.sh <repo root> <scratch dir> <c++ compiler>
set -eu
ROOT="$1"
STAGE="$2/vendor-sdk"
CXX="$3"
rm -rf "$STAGE"
mkdir -p "$STAGE/Headers/SP" "$STAGE/Util"
for h in AEConfig.h A.h AE_Effect.h AE_EffectCB.h AE_EffectCBSuites.h AE_EffectSuites.h \
         AE_Macros.h AEFX_SuiteHandlerTemplate.h PrSDKAESupport.h PrSDKPixelFormat.h; do
    cp "$ROOT/sdk/$h" "$STAGE/Headers/"
done
for h in SPBasic.h SPTypes.h SPErrorCodes.h; do cp "$ROOT/sdk/$h" "$STAGE/Headers/SP/"; done
for h in entry.h AEGP_SuiteHandler.h AEGP_SuiteHandler.cpp MissingSuiteError.cpp; do
    cp "$ROOT/sdk/$h" "$STAGE/Util/"
done
status=0
if grep -rnE '#include *[<"](\.\./)*sdk/' "$ROOT/host" "$ROOT/image" "$ROOT/matte"; then
    echo "plug-in sources must not include sdk/ by path"
    status=1
fi
for src in $(find "$ROOT/host" "$ROOT/image" "$ROOT/matte" -name '*.cpp' | sort); do
    if ! "$CXX" -std=c++20 -fsyntax-only -Wall -Wextra -Wno-multichar -DPF_DEEP_COLOR_AWARE=1 \
        -I"$STAGE/Headers" -I"$STAGE/Headers/SP" -I"$STAGE/Util" -I"$ROOT" "$src"; then
        echo "FAILED: $src"
        status=1
    fi
done
[ $status -eq 0 ] && echo "every plug-in source compiles with only the vendor layout"
exit $status
