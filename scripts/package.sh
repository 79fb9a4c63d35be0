#!/usr/bin/env bash
# Builds the Debian packages into build-pkg/packages and checks them with
# lintian. See docs/packaging.md.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
build_dir=${FARLINK_PACKAGE_BUILD_DIR:-build-pkg}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
      -DFARLINK_TESTS=OFF -DFARLINK_BENCH=OFF >/dev/null
cmake --build "$build_dir" -j "$(nproc)"
rm -rf "$build_dir/packages"
cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$build_dir/packages" >/dev/null
rm -rf "$build_dir/packages/_CPack_Packages"
ls -l "$build_dir"/packages/*.deb
# lintian's findings are explained in docs/packaging.md; it fails only on
# errors.
lintian --fail-on error --tag-display-limit 0 "$build_dir"/packages/*.deb
