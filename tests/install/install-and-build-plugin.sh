#!/usr/bin/env bash
# Installs a build tree into a scratch prefix, builds the example plugin of
# examples/external-plugin against the installed package with find_package,
# and checks that the installed kel (which finds its libraries and default
# plugins by itself) loads it next to the installed plugins.
#   install-and-build-plugin.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir/examples/external-plugin" -B "$work/plugin" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/plugin" >/dev/null

out=$(env -u LD_LIBRARY_PATH "$work/prefix/bin/kel" filters --plugin-dir "$work/prefix/lib/kel/plugins" \
      --plugin "$work/plugin/libFrameCounter_kpl.so")
for class in FrameCounter SourceKEL2FileReader TargetKEL2FilePerStreamSnapshotWriterAsync; do
  if ! grep -q "^$class " <<<"$out"; then
    echo "installed kel does not list $class:" >&2
    echo "$out" >&2
    exit 1
  fi
done
# The installed Python module finds the installed libraries by itself.
site=$(echo "$work"/prefix/lib/python3*/dist-packages)
if [ -d "$site" ]; then
  env -u LD_LIBRARY_PATH PYTHONPATH="$site" /usr/bin/python3 -c \
    "import kel, sys; w = kel.create(sys.argv[1]); w.write(kel.Atom(stream=2)); w.close(); assert kel.open(sys.argv[1]).streams == [2]" \
    "$work/check.kel"
  # The installed kel batch runs the installed package's kel.batch, with no
  # PYTHONPATH given: it finds the package beside its own prefix.
  (cd "$work" && env -u LD_LIBRARY_PATH -u PYTHONPATH "$work/prefix/bin/kel" batch info check.kel --workers 1 --json) \
    | /usr/bin/python3 -c "import json, sys; rows = json.load(sys.stdin); assert rows[0]['atoms'] == 1, rows"
fi
echo "external plugin built against the installed package and loaded"
