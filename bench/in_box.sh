# Sourced by the benchmarks that measure the box's host: unless the calling
# script already runs inside a box, runs it again inside one of its own,
# from BUILD_DIR, with its run directory in BUILD_DIR/box-runs/NAME.
#
#   . bench/in_box.sh NAME BUILD_DIR [ARG...]   (ARGs follow BUILD_DIR to the script)
if [ -z "${FARLINK_BOX_RUN_DIR:-}" ]; then
    exec "$(dirname "${BASH_SOURCE[0]}")/../box/farlink-box" --build "$2" --port 0 \
        --run-dir "$2/box-runs/$1" -- bash "$0" "${@:2}"
fi
