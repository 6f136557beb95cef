# Installs the build into a scratch prefix and builds a program outside the project against it, by
# find_package and by pkg-config, and from the source tree by add_subdirectory; each program must
# train the golf tree.
#   bash test_install.sh <build-dir> <repo-root>
set -u
BUILD=$1
ROOT=$2
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
FAILURES=0
fail() {
  echo "FAIL: $*"
  FAILURES=$((FAILURES + 1))
}
check_run() {  # program label
  local out
  out=$("$1" "$ROOT/examples/golf" 2>&1) || fail "$2: the program failed: $out"
  printf '%s\n' "$out" | grep -q '^outlook = overcast: yes (4.0/1.2)$' || fail "$2: no golf tree"
}

cmake --install "$BUILD" --prefix "$WORK/prefix" >"$WORK/install.log" 2>&1 ||
  { cat "$WORK/install.log"; fail "cmake --install"; exit 1; }
for f in bin/brixcmd include/brix/brix.h lib/libbrix.a lib/cmake/brix/brixConfig.cmake \
  lib/pkgconfig/brix.pc share/man/man1/brixcmd.1 share/man/man1/brix.1 bin/brix \
  include/brix/version.h share/doc/brix/json-model.md; do
  [ -e "$WORK/prefix/$f" ] || fail "not installed: $f"
done

cmake -S "$ROOT/tests/install/consumer" -B "$WORK/by-package" -DCMAKE_PREFIX_PATH="$WORK/prefix" \
  >"$WORK/package.log" 2>&1 && cmake --build "$WORK/by-package" >>"$WORK/package.log" 2>&1 ||
  { tail -20 "$WORK/package.log"; fail "find_package build"; }
check_run "$WORK/by-package/consumer" find_package

if command -v pkg-config >/dev/null; then
  flags=$(PKG_CONFIG_PATH="$WORK/prefix/lib/pkgconfig" pkg-config --cflags --libs brix) ||
    fail "pkg-config does not know brix"
  g++ -std=c++17 "$ROOT/tests/install/consumer/main.cpp" -o "$WORK/by-pkg-config" $flags \
    2>"$WORK/pc.log" || { cat "$WORK/pc.log"; fail "pkg-config build"; }
  check_run "$WORK/by-pkg-config" pkg-config
else
  echo "skipped: pkg-config not installed"
fi

cmake -S "$ROOT/tests/install/consumer" -B "$WORK/by-subdirectory" -DBRIX_SOURCE="$ROOT" \
  -DCMAKE_BUILD_TYPE=Release >"$WORK/sub.log" 2>&1 &&
  cmake --build "$WORK/by-subdirectory" -j 2 --target consumer >>"$WORK/sub.log" 2>&1 ||
  { tail -20 "$WORK/sub.log"; fail "add_subdirectory build"; }
check_run "$WORK/by-subdirectory/consumer" add_subdirectory
[ -e "$WORK/by-subdirectory/brix/tests" ] && fail "a subproject build configured Brix's tests"

[ "$FAILURES" -eq 0 ] || { echo "$FAILURES check(s) failed"; exit 1; }
echo "all checks passed"
