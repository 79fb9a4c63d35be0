# Sourced by the benches that run inside the box. Outside it, runs the
# calling script again as the COMMAND of a box of its own, from BUILD_DIR
# (run directory BUILD_DIR/box-runs/NAME); inside, signs in as admin and
# sets `url` (the web API), `sid` and `token` (the session and its
# anti-forgery token) and `session` (curl's arguments for a call in it).
#
#   . "$(dirname "$0")/box_session.sh" NAME BUILD_DIR SCRIPT [ARG...]
bench_name=$1 bench_build=$2
shift 2
if [ -z "${FARLINK_BOX_RUN_DIR:-}" ]; then
    exec "$(dirname "${BASH_SOURCE[0]}")/../box/farlink-box" --build "$bench_build" --port 0 \
        --run-dir "$bench_build/box-runs/$bench_name" -- bash "$@"
fi
command -v wrk >/dev/null || { echo "$bench_name: wrk is missing" >&2; exit 1; }
url=$FARLINK_BOX_URL/webapi
bench_login=$(curl -sf -d account=admin \
    --data-urlencode "passwd=$(cat "$FARLINK_BOX_RUN_DIR/admin-password")" "$url/auth.cgi")
sid=$(sed -n 's/.*"sid":"\([0-9a-f]*\)".*/\1/p' <<<"$bench_login")
token=$(sed -n 's/.*"token":"\([0-9a-f]*\)".*/\1/p' <<<"$bench_login")
[ -n "$sid" ] || { echo "$bench_name: cannot log in" >&2; exit 1; }
session=(-b "id=$sid" -H "X-Farlink-Token: $token")
