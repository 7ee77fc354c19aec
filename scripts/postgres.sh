#!/usr/bin/env bash
# Starts a throw-away PostgreSQL 15 server for the tests: a new cluster in a temporary folder,
# reached only through a Unix socket in that folder, with an administrator role
# "corvane_admin". As root, the server runs as the unprivileged "postgres" user (the server
# refuses to run as root).
#
# usage: source scripts/postgres.sh; start_postgres   # exports CORVANE_TEST_POSTGRES
#        stop_postgres                                 # stops it and removes the folder

start_postgres() {
    local bin=/usr/lib/postgresql/15/bin
    postgres_dir=$(mktemp -d)
    local as=()
    if [ "$(id -u)" -eq 0 ]; then
        chown postgres "$postgres_dir"
        as=(runuser -u postgres --)
    fi
    "${as[@]}" "$bin/initdb" -D "$postgres_dir/data" -U corvane_admin -A trust -E UTF8 \
        --no-sync > "$postgres_dir/initdb.log" 2>&1 || { cat "$postgres_dir/initdb.log"; return 1; }
    # No TCP port: nothing else on the machine can collide with it, or reach it.
    "${as[@]}" "$bin/pg_ctl" -D "$postgres_dir/data" -l "$postgres_dir/server.log" -w \
        -o "-k $postgres_dir -c listen_addresses= -c fsync=off -c max_connections=200" \
        start > /dev/null || { cat "$postgres_dir/server.log"; return 1; }
    export CORVANE_TEST_POSTGRES="host=$postgres_dir user=corvane_admin dbname=postgres"
}

stop_postgres() {
    [ -n "${postgres_dir:-}" ] || return 0
    local as=()
    [ "$(id -u)" -eq 0 ] && as=(runuser -u postgres --)
    "${as[@]}" /usr/lib/postgresql/15/bin/pg_ctl -D "$postgres_dir/data" -m fast -w stop \
        > /dev/null 2>&1 || true
    rm -rf "$postgres_dir"
    unset CORVANE_TEST_POSTGRES postgres_dir
}
