#!/usr/bin/env bash
# Starts a throw-away PostgreSQL 15 server for the tests, set up as a team store's server is in
# real life: a new cluster in a temporary folder whose superuser is "postgres", and an
# administrator "corvane_admin" that may create roles and databases but is no superuser. The
# administrator comes in through a Unix socket in that folder; people log in over TCP on
# 127.0.0.1 with SCRAM passwords, on a port nobody else uses. Data definitions are logged, so a
# test can tell that no password reached the server in plain text. As root, the server runs as
# the unprivileged "postgres" user (the server refuses to run as root).
#
# usage: source scripts/postgres.sh; start_postgres
#          exports CORVANE_TEST_POSTGRES (the administrator's address), CORVANE_TEST_POSTGRES_TCP
#          (host and port for people) and CORVANE_TEST_POSTGRES_LOG (the server's log)
#        stop_postgres       # stops it and removes the folder

start_postgres() {
    local bin=/usr/lib/postgresql/15/bin
    postgres_dir=$(mktemp -d)
    local as=()
    if [ "$(id -u)" -eq 0 ]; then
        chown postgres "$postgres_dir"
        as=(runuser -u postgres --)
    fi
    "${as[@]}" "$bin/initdb" -D "$postgres_dir/data" -U postgres -A trust -E UTF8 \
        --no-sync > "$postgres_dir/initdb.log" 2>&1 || { cat "$postgres_dir/initdb.log"; return 1; }
    "${as[@]}" tee "$postgres_dir/data/pg_hba.conf" > /dev/null <<'EOF'
local all all trust
host all all 127.0.0.1/32 scram-sha-256
EOF
    local port
    port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
    "${as[@]}" "$bin/pg_ctl" -D "$postgres_dir/data" -l "$postgres_dir/server.log" -w \
        -o "-k $postgres_dir -c listen_addresses=127.0.0.1 -p $port -c fsync=off \
            -c max_connections=300 -c log_statement=ddl" \
        start > /dev/null || { cat "$postgres_dir/server.log"; return 1; }
    "$bin/psql" -q -h "$postgres_dir" -p "$port" -U postgres -d postgres \
        -c "CREATE ROLE corvane_admin LOGIN CREATEROLE CREATEDB" \
        -c "GRANT pg_signal_backend TO corvane_admin" > /dev/null || return 1
    export CORVANE_TEST_POSTGRES="host=$postgres_dir port=$port user=corvane_admin dbname=postgres"
    export CORVANE_TEST_POSTGRES_TCP="host=127.0.0.1 port=$port"
    export CORVANE_TEST_POSTGRES_LOG="$postgres_dir/server.log"
}

stop_postgres() {
    [ -n "${postgres_dir:-}" ] || return 0
    local as=()
    [ "$(id -u)" -eq 0 ] && as=(runuser -u postgres --)
    "${as[@]}" /usr/lib/postgresql/15/bin/pg_ctl -D "$postgres_dir/data" -m fast -w stop \
        > /dev/null 2>&1 || true
    rm -rf "$postgres_dir"
    unset CORVANE_TEST_POSTGRES CORVANE_TEST_POSTGRES_TCP CORVANE_TEST_POSTGRES_LOG postgres_dir
}
