# The Makefile: install builds only what it installs, the demo builds both commands, and a build
# folder configured for another checkout is refused with what to do before CMake sees it.
source "$(dirname "$0")/lib.sh"
command -v make >/dev/null || { echo "skipped: no make"; exit 77; }

# make -n prints the recipes without running them.
make -s -n -C "$ROOT" install BUILD=b PREFIX="$WORK/p" >install.txt 2>&1 || fail "make -n install: $(cat install.txt)"
grep -q -- '--build b .*--target brixcmd brix_cmd brix zel farm' install.txt ||
  fail "install does not build its targets alone: $(grep -- --build install.txt)"
grep -- '--build b' install.txt | grep -qv -- '--target' && fail "install builds every target"
grep -q -- '--install b --prefix' install.txt || fail "install does not install"
make -s -n -C "$ROOT" demo BUILD=b >demo.txt 2>&1
grep -q -- '--target brixcmd brix_cmd' demo.txt || fail "demo does not build brix"
grep -q 'brix train examples/iris.csv' demo.txt || fail "demo does not train on iris.csv"

mkdir -p copied elsewhere
printf 'CMAKE_HOME_DIRECTORY:INTERNAL=%s\n' "$WORK/elsewhere" >copied/CMakeCache.txt
make -s -C "$ROOT" build-dir BUILD="$WORK/copied" >out.txt 2>err.txt && fail "a copied build folder is accepted"
grep -q "configured for the sources in $WORK/elsewhere" err.txt || fail "no hint: $(cat err.txt)"
grep -q "make clean" err.txt || fail "the hint says nothing to do: $(cat err.txt)"
printf 'CMAKE_HOME_DIRECTORY:INTERNAL=%s\n' "$ROOT" >copied/CMakeCache.txt
make -s -C "$ROOT" build-dir BUILD="$WORK/copied" >out.txt 2>err.txt || fail "its own build folder is refused: $(cat err.txt)"
make -s -C "$ROOT" build-dir BUILD="$WORK/none" >out.txt 2>err.txt || fail "a new build folder is refused"

finish
