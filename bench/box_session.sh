# Sourced by the benches that run inside the box. Outside it, runs the
# calling script again as the COMMAND of a box of its own, from BUILD_DIR
# (run directory BUILD_DIR/box-runs/NAME); inside, signs in as admin and
# sets `url` (the web API) and `sid` (the session).
#
#   . "$(dirname "$0")/box_session.sh" NAME BUILD_DIR SCRIPT [ARG...]
bench_name=$1 bench_build=$2
shift 2
if [ -z "${FARLINK_BOX_RUN_DIR:-}" ]; then
    exec "$(dirname "${BASH_SOURCE[0]}")/../box/farlink-box" --build "$bench_build" --port 0 \
        --run-dir "$bench_build/box-runs/$bench_name" -- bash "$@"
fi
command -v wrk >/dev/null || { echo "$bench_name: wrk is missing" >&2; exit 1; }
url=http://127.0.0.1:8080/webapi
sid=$(curl -sf -d account=admin --data-urlencode "passwd=$(cat "$FARLINK_BOX_RUN_DIR/admin-password")" \
    "$url/auth.cgi" | sed -n 's/.*"sid":"\([0-9a-f]*\)".*/\1/p')
[ -n "$sid" ] || { echo "$bench_name: cannot log in" >&2; exit 1; }
