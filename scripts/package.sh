#!/usr/bin/env bash
# Makes the release artifacts in dist/ (or --out DIR), all named with the
# library's version:
#   archive  the release archive of `cmake --install` (cpack, from build/)
#   wheels   one platform wheel per CPython that the package supports and this
#            machine has, each with the library built against that interpreter,
#            repaired by auditwheel to the lowest manylinux tag it satisfies
#   nuget    Velmora.<version>.nupkg: Velmora.dll with its XML documentation,
#            the library and its runtime folder as native assets for linux-x64
#            (scripts/nupkg.py)
# Without names, all three; earlier artifacts of those kinds are removed from
# the output folder first. Needs the build of scripts/setup.sh (or --build DIR).
#   scripts/package.sh [--build DIR] [--out DIR] [archive] [wheels] [nuget]
set -euo pipefail
source=$(realpath "$(dirname "$0")/..")
out=$source/dist
build=$source/build
while [[ ${1:-} == --* ]]; do
  case $1 in
    --out) out=$(realpath -m "$2") ;;
    --build) build=$(realpath "$2") ;;
    *) echo "package.sh: unknown option $1" >&2; exit 2 ;;
  esac
  shift 2
done
kinds=("$@")
((${#kinds[@]})) || kinds=(archive wheels nuget)
python=$source/.venv/bin/python
library=Tarvik.Velmora.Framework.OpenVINOBindings.so
work=$(mktemp -d /tmp/velmora-package.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$out"
fail() { echo "package.sh: $*" >&2; exit 1; }

version=$(sed -n 's/^__version__ = "\(.*\)"$/\1/p' "$source/python/velmora/_version.py")
cmake --build "$build" >/dev/null

archive() {
  rm -f "$out"/TarvikVelmoraOpenVINOBindings-*.tar.gz
  (cd "$build" && cpack >/dev/null)
  local made
  made=$(ls "$build"/package/TarvikVelmoraOpenVINOBindings-"$version"-*.tar.gz)
  # (Listed whole first: a grep that stops early would fail tar under pipefail.)
  [[ $'\n'$(tar -tzf "$made")$'\n' == *$'/lib/Velmora.dll\n'* ]] || fail "the archive carries no Velmora.dll (mcs missing?)"
  cp "$made" "$out/"
  echo "$out/$(basename "$made")"
}

# Every CPython the package's requires-python admits, found on PATH or in pyenv.
interpreters() {
  local spec minor found
  spec=$("$python" -c 'import sys, tomllib; print(tomllib.load(open(sys.argv[1], "rb"))["project"]["requires-python"])' \
           "$source/python/pyproject.toml")
  for minor in $(seq 8 20); do
    "$python" -c 'import sys; from packaging.specifiers import SpecifierSet
sys.exit(sys.argv[2] not in SpecifierSet(sys.argv[1]))' "$spec" "3.$minor" || continue
    # pyenv's shims exist for every version but run only the selected ones.
    for found in $(ls "$HOME"/.pyenv/versions/3."$minor".*/bin/python3."$minor" 2>/dev/null | sort -V | tail -1) \
                 $(command -v "python3.$minor"); do
      if "$found" -c pass 2>/dev/null; then echo "$found"; break; fi
    done
  done
}

wheels() {
  # The runtime's own wheels carry the tag of the oldest system they run on; the
  # library gets the lowest tag it satisfies, which is theirs when it is built on
  # a system that old and newer (that of the build machine's C and C++ runtimes)
  # otherwise.
  local runtime_plat py minor
  runtime_plat=$("$python" -c 'import importlib.metadata as m
print(next(l for l in m.distribution("openvino").read_text("WHEEL").splitlines() if l.startswith("Tag:")).rsplit("-", 1)[1])')
  rm -f "$out"/velmora-*.whl
  for py in $(interpreters); do
    minor=$("$py" -c 'import sys; print(sys.version_info.minor)')
    # The library's build directory is per interpreter; nothing of it is kept.
    "$py" -m pip wheel -q --disable-pip-version-check --no-deps "$source/python" -w "$work/raw-$minor" >&2
    # The runtime's libraries come from its own wheels, which the package depends on.
    PATH=$source/.venv/bin:$PATH auditwheel repair --exclude 'libopenvino*' -w "$out" "$work/raw-$minor"/velmora-*.whl \
      >"$work/repair.log" 2>&1 || { cat "$work/repair.log" >&2; fail "auditwheel refused the wheel for $py"; }
    ls "$out"/velmora-"$version"-cp3"$minor"-cp3"$minor"-manylinux*.whl
  done
  ls "$out"/velmora-*"$runtime_plat"*.whl >/dev/null 2>&1 ||
    echo "package.sh: the runtime's wheels are $runtime_plat; these wheels need the newer C and C++ runtimes" \
         "of this build machine" >&2
}

nuget() {
  local stage=$work/nuget
  rm -f "$out"/Velmora.*.nupkg
  cmake --install "$build" --prefix "$stage" --component runtime >/dev/null
  [[ -f $stage/lib/Velmora.dll ]] || fail "the build made no Velmora.dll (mcs missing?)"
  "$python" "$source/scripts/nupkg.py" "$stage" "$source/bindings/dotnet/Velmora.package.xml" "$version" \
    "$out/Velmora.$version.nupkg"
  echo "$out/Velmora.$version.nupkg"
}

for kind in "${kinds[@]}"; do
  case $kind in
    archive | wheels | nuget) "$kind" ;;
    *) fail "unknown artifact '$kind'; choose from archive, wheels, nuget" ;;
  esac
done
