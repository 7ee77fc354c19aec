-- The team store on PostgreSQL: its tables, in the schema "corvane", and the functions that are
-- the only door people have to them. People hold no privilege on any table, sequence or schema
-- other than the right to call the functions marked "people" below; each of those runs as the
-- store's administrator (the owner of everything here, never a superuser), names the caller by
-- their login (session_user), and checks what the caller may do before it touches a row.
--
-- Every function fixes its search path with pg_temp last, so that nothing a session makes can
-- stand in for a table or function named here. Failures a client must tell apart carry the
-- cloud code as SQLSTATE "CV" and three digits (CV011: an unknown item).
--
-- Run by "corvane store init" as one transaction; running it again changes nothing but the
-- functions, which it replaces with this version's.

CREATE SCHEMA IF NOT EXISTS corvane;

-- Layout 4. Tables, what one row is, and the rules the store keeps:
--   settings      "layout" (this layout's number) and "people" (the store's group role).
--   accounts      one person; role_name is their login; email_key the address as look-ups
--                 compare it (ASCII letters in lower case).
--   zones         one zone of one owner.
--   records       one record; fields holds the encoded fields; parent is the name of the
--                 parent record in the same zone; dates are Unix milliseconds.
--   assets        one stored content of one zone, named by the SHA-256 of its bytes. Contents
--                 are never shared between zones, so what a zone holds tells nothing about
--                 any other zone. A content exists only while a record of its zone uses it.
--   asset_chunks  its bytes, in pieces numbered from 0; added with their content in one
--                 transaction (a piece without its content fails the commit).
--   asset_refs    one record using one content of its zone.
--   shares        the share of a zone (at most one), found by the secret token of its URL;
--                 the URL's fragment names the zone for people and is fixed when it is made.
--   participants  one person in a zone's share, in share order (position 0 is the owner);
--                 account_id is empty for an address that has no account yet.
CREATE TABLE IF NOT EXISTS corvane.settings (name TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS corvane.accounts (
    id BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    record_name TEXT NOT NULL UNIQUE,
    email TEXT,
    email_key TEXT UNIQUE,
    given_name TEXT,
    family_name TEXT,
    role_name TEXT UNIQUE);
CREATE TABLE IF NOT EXISTS corvane.zones (
    id BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    owner_id BIGINT NOT NULL REFERENCES corvane.accounts,
    name TEXT NOT NULL,
    created BIGINT NOT NULL,
    UNIQUE (owner_id, name));
CREATE TABLE IF NOT EXISTS corvane.records (
    id BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    zone_id BIGINT NOT NULL REFERENCES corvane.zones ON DELETE CASCADE,
    name TEXT NOT NULL,
    type TEXT NOT NULL,
    parent TEXT,
    fields BYTEA NOT NULL,
    change_tag TEXT NOT NULL,
    created BIGINT NOT NULL,
    modified BIGINT NOT NULL,
    UNIQUE (zone_id, name));
CREATE TABLE IF NOT EXISTS corvane.assets (
    zone_id BIGINT NOT NULL REFERENCES corvane.zones ON DELETE CASCADE,
    hash TEXT NOT NULL,
    size BIGINT NOT NULL,
    PRIMARY KEY (zone_id, hash));
CREATE TABLE IF NOT EXISTS corvane.asset_chunks (
    zone_id BIGINT NOT NULL,
    hash TEXT NOT NULL,
    seq BIGINT NOT NULL,
    data BYTEA NOT NULL,
    PRIMARY KEY (zone_id, hash, seq),
    FOREIGN KEY (zone_id, hash) REFERENCES corvane.assets ON DELETE CASCADE
        DEFERRABLE INITIALLY DEFERRED);
CREATE TABLE IF NOT EXISTS corvane.asset_refs (
    record_id BIGINT NOT NULL REFERENCES corvane.records ON DELETE CASCADE,
    zone_id BIGINT NOT NULL,
    hash TEXT NOT NULL,
    PRIMARY KEY (record_id, hash),
    FOREIGN KEY (zone_id, hash) REFERENCES corvane.assets);
CREATE INDEX IF NOT EXISTS asset_refs_by_content ON corvane.asset_refs (zone_id, hash);
CREATE TABLE IF NOT EXISTS corvane.shares (
    zone_id BIGINT PRIMARY KEY REFERENCES corvane.zones ON DELETE CASCADE,
    record_id BIGINT NOT NULL REFERENCES corvane.records ON DELETE CASCADE,
    token TEXT NOT NULL UNIQUE,
    url TEXT NOT NULL,
    root_name TEXT NOT NULL,
    title TEXT,
    thumbnail BYTEA);
CREATE TABLE IF NOT EXISTS corvane.participants (
    zone_id BIGINT NOT NULL REFERENCES corvane.zones ON DELETE CASCADE,
    position BIGINT NOT NULL,
    account_id BIGINT REFERENCES corvane.accounts,
    email TEXT,
    email_key TEXT,
    type BIGINT NOT NULL,
    status BIGINT NOT NULL,
    permission BIGINT NOT NULL,
    PRIMARY KEY (zone_id, position));
CREATE INDEX IF NOT EXISTS participants_by_account ON corvane.participants (account_id);

-- Checked at commit: a content nobody uses is never left behind.
CREATE OR REPLACE FUNCTION corvane.check_asset_used() RETURNS TRIGGER LANGUAGE plpgsql
SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
BEGIN
    IF EXISTS (SELECT 1 FROM assets a WHERE a.zone_id = NEW.zone_id AND a.hash = NEW.hash)
       AND NOT EXISTS (SELECT 1 FROM asset_refs r
                       WHERE r.zone_id = NEW.zone_id AND r.hash = NEW.hash) THEN
        RAISE EXCEPTION 'The content % was stored without a record that uses it', NEW.hash
            USING ERRCODE = 'CV012';
    END IF;
    RETURN NULL;
END $$;
DROP TRIGGER IF EXISTS assets_used ON corvane.assets;
CREATE CONSTRAINT TRIGGER assets_used AFTER INSERT ON corvane.assets
    DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION corvane.check_asset_used();

-- Helpers, for the functions below only.

CREATE OR REPLACE FUNCTION corvane.now_ms() RETURNS BIGINT LANGUAGE sql VOLATILE
SET search_path = pg_catalog, pg_temp AS $$
    SELECT (extract(epoch FROM clock_timestamp()) * 1000)::BIGINT
$$;

CREATE OR REPLACE FUNCTION corvane.email_key(address TEXT) RETURNS TEXT LANGUAGE sql IMMUTABLE
SET search_path = pg_catalog, pg_temp AS $$
    SELECT translate(address, 'ABCDEFGHIJKLMNOPQRSTUVWXYZ', 'abcdefghijklmnopqrstuvwxyz')
$$;

-- A random name of 32 hex digits: share tokens and change tags.
CREATE OR REPLACE FUNCTION corvane.random_hex() RETURNS TEXT LANGUAGE sql VOLATILE
SET search_path = pg_catalog, pg_temp AS $$
    SELECT replace(gen_random_uuid()::TEXT, '-', '')
$$;

-- The caller's account; code 9 for a login that is not a person of this store.
CREATE OR REPLACE FUNCTION corvane.person() RETURNS corvane.accounts LANGUAGE plpgsql STABLE
SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts;
BEGIN
    SELECT * INTO me FROM accounts a WHERE a.role_name = session_user;
    IF NOT FOUND THEN
        RAISE EXCEPTION 'The database role % is not a person of this cloud store; its '
            'administrator adds it with "corvane store add-person"', session_user
            USING ERRCODE = 'CV009';
    END IF;
    RETURN me;
END $$;

-- The zone a person reaches, and how: their own zones through the private database (scope 2),
-- zones of others whose share they accepted through the shared database (scope 3), and, by the
-- token of a share that lists them (not removed), its zone for reading only: a share link is
-- the only way into a zone before its share is accepted. Writing needs the zone's owner or a
-- read-write acceptance, and locks the zone's row, so that the writers of one zone take turns.
-- zone_id is null when the zone is not reached this way.
CREATE OR REPLACE FUNCTION corvane.reach(
    me corvane.accounts, _scope INT, _owner TEXT, _zone TEXT, _token TEXT, _writing BOOLEAN,
    OUT zone_id BIGINT, OUT owned BOOLEAN, OUT writable BOOLEAN)
LANGUAGE plpgsql VOLATILE SET search_path = pg_catalog, corvane, pg_temp AS $$
#variable_conflict use_column
DECLARE
    found_zone BIGINT;
    found_owner BIGINT;
    granted BIGINT;
BEGIN
    owned := false;
    writable := false;
    IF _token IS NOT NULL THEN
        IF _writing THEN
            RETURN;
        END IF;
        SELECT s.zone_id, z.owner_id INTO found_zone, found_owner
            FROM shares s JOIN zones z ON z.id = s.zone_id WHERE s.token = _token;
        IF found_zone IS NULL THEN
            RETURN;
        END IF;
        owned := found_owner = me.id;
        IF owned OR EXISTS (SELECT 1 FROM participants p WHERE p.zone_id = found_zone
                AND p.status <> 3 AND (p.account_id = me.id
                    OR (p.account_id IS NULL AND p.email_key = me.email_key))) THEN
            zone_id := found_zone;
        END IF;
        RETURN;
    END IF;
    IF _scope = 2 THEN
        IF _owner <> '__defaultOwner__' AND _owner <> me.record_name THEN
            RETURN;
        END IF;
        SELECT z.id INTO found_zone FROM zones z WHERE z.owner_id = me.id AND z.name = _zone;
        owned := found_zone IS NOT NULL;
        writable := owned;
    ELSIF _scope = 3 THEN
        IF _owner = '__defaultOwner__' OR _owner = me.record_name THEN
            RETURN;
        END IF;
        SELECT z.id, p.permission INTO found_zone, granted
            FROM zones z JOIN accounts a ON a.id = z.owner_id
            JOIN participants p ON p.zone_id = z.id
            WHERE a.record_name = _owner AND z.name = _zone AND p.account_id = me.id
            AND p.status = 2;
        writable := found_zone IS NOT NULL AND granted = 3;
    END IF;
    zone_id := found_zone;
    IF zone_id IS NOT NULL AND _writing AND writable THEN
        PERFORM 1 FROM zones z WHERE z.id = found_zone FOR UPDATE;
        -- Deleted while this writer waited for it.
        IF NOT FOUND THEN
            zone_id := NULL;
        END IF;
    END IF;
END $$;

-- The zone for reading; code 11 when it is not reached.
CREATE OR REPLACE FUNCTION corvane.readable_zone(
    me corvane.accounts, _scope INT, _owner TEXT, _zone TEXT, _token TEXT) RETURNS BIGINT
LANGUAGE plpgsql VOLATILE SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    found RECORD;
BEGIN
    SELECT * INTO found FROM reach(me, _scope, _owner, _zone, _token, false);
    IF found.zone_id IS NULL THEN
        RAISE EXCEPTION 'Record zone % does not exist', _zone USING ERRCODE = 'CV011';
    END IF;
    RETURN found.zone_id;
END $$;

-- The zone for writing, locked; code 11 when it is not reached, 10 when it is read-only.
CREATE OR REPLACE FUNCTION corvane.writable_zone(
    me corvane.accounts, _scope INT, _owner TEXT, _zone TEXT, OUT zone_id BIGINT,
    OUT owned BOOLEAN)
LANGUAGE plpgsql VOLATILE SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    found RECORD;
BEGIN
    SELECT * INTO found FROM reach(me, _scope, _owner, _zone, NULL, true);
    IF found.zone_id IS NULL THEN
        RAISE EXCEPTION 'Record zone % does not exist', _zone USING ERRCODE = 'CV011';
    END IF;
    IF NOT found.writable THEN
        RAISE EXCEPTION 'No permission to change records of zone %', _zone
            USING ERRCODE = 'CV010';
    END IF;
    zone_id := found.zone_id;
    owned := found.owned;
END $$;

-- A zone's share as JSON text: URL, root, title, thumbnail (hex) and the participants in share
-- order, each with the identity of their account where they have one.
CREATE OR REPLACE FUNCTION corvane.share_json(_zone_id BIGINT) RETURNS TEXT LANGUAGE sql STABLE
SET search_path = pg_catalog, corvane, pg_temp AS $$
    SELECT json_build_object(
        'url', s.url, 'root', s.root_name, 'title', s.title,
        'thumbnail', encode(s.thumbnail, 'hex'),
        'participants', COALESCE((
            SELECT json_agg(json_build_object(
                'type', p.type, 'status', p.status, 'permission', p.permission,
                'email', CASE WHEN a.id IS NULL THEN p.email ELSE a.email END,
                'recordName', a.record_name, 'givenName', a.given_name,
                'familyName', a.family_name) ORDER BY p.position)
            FROM participants p LEFT JOIN accounts a ON a.id = p.account_id
            WHERE p.zone_id = s.zone_id), '[]'::JSON))::TEXT
    FROM shares s WHERE s.zone_id = _zone_id
$$;

-- Writes a zone's share (its owner's doing) from its JSON form: root, title, thumbnail (hex),
-- the fragment its URL is to end in when the share is new (percent-encoded) and the participants, each named by user record name or e-mail address, with a permission
-- and the status the owner's copy showed. A known person keeps their status, except that one
-- who left becomes pending again when invited anew; a new person is pending. Nobody is
-- accepted but by their own answer.
CREATE OR REPLACE FUNCTION corvane.write_share(
    me corvane.accounts, _zone_id BIGINT, _zone TEXT, _record_id BIGINT, _share JSON)
RETURNS VOID LANGUAGE plpgsql VOLATILE SET search_path = pg_catalog, corvane, pg_temp AS $$
#variable_conflict use_column
DECLARE
    entry JSON;
    invitee accounts;
    address TEXT;
    v_key TEXT;
    existing BIGINT;
    known BIGINT;
    v_status BIGINT;
    v_permission BIGINT;
    v_position BIGINT := 1;
    previous JSON := '[]';
    seen TEXT[] := '{}';
BEGIN
    SELECT s.record_id INTO existing FROM shares s WHERE s.zone_id = _zone_id;
    IF existing IS NOT NULL AND existing <> _record_id THEN
        RAISE EXCEPTION 'Zone % is already shared', _zone USING ERRCODE = 'CV030';
    END IF;
    IF _share IS NULL OR json_typeof(_share) <> 'object'
       OR COALESCE(_share->>'root', '') = '' THEN
        RAISE EXCEPTION 'A share needs its root record' USING ERRCODE = 'CV012';
    END IF;
    IF COALESCE(_share->>'fragment', '') !~ '^[A-Za-z0-9%._~-]*$' THEN
        RAISE EXCEPTION 'A share URL''s fragment is percent-encoded' USING ERRCODE = 'CV012';
    END IF;
    IF existing IS NULL THEN
        v_key := random_hex();
        INSERT INTO shares (zone_id, record_id, token, url, root_name, title, thumbnail)
            VALUES (_zone_id, _record_id, v_key, 'corvane://share/' || v_key
                        || COALESCE('#' || NULLIF(_share->>'fragment', ''), ''),
                    _share->>'root', _share->>'title', decode(_share->>'thumbnail', 'hex'));
    ELSE
        UPDATE shares s SET root_name = _share->>'root', title = _share->>'title',
            thumbnail = decode(_share->>'thumbnail', 'hex') WHERE s.zone_id = _zone_id;
    END IF;

    -- What each person's status was, before the list is written anew.
    SELECT COALESCE(json_agg(json_build_object('account', p.account_id, 'key', p.email_key,
                                               'status', p.status)), '[]')
        INTO previous FROM participants p WHERE p.zone_id = _zone_id AND p.position > 0;
    DELETE FROM participants p WHERE p.zone_id = _zone_id;
    INSERT INTO participants (zone_id, position, account_id, email, email_key, type, status,
                              permission)
        VALUES (_zone_id, 0, me.id, me.email, NULL, 1, 2, 3);

    IF json_typeof(_share->'participants') = 'array' THEN
        FOR entry IN SELECT * FROM json_array_elements(_share->'participants') LOOP
            CONTINUE WHEN (entry->>'type') = '1';
            invitee := NULL;
            address := NULL;
            IF COALESCE(entry->>'recordName', '') <> '' THEN
                SELECT * INTO invitee FROM accounts a WHERE a.record_name = entry->>'recordName';
                IF invitee.id IS NULL THEN
                    RAISE EXCEPTION 'Unknown share participant %', entry->>'recordName'
                        USING ERRCODE = 'CV012';
                END IF;
                address := invitee.email;
            ELSIF COALESCE(entry->>'email', '') <> '' THEN
                address := entry->>'email';
                SELECT * INTO invitee FROM accounts a WHERE a.email_key = email_key(address);
                IF invitee.id IS NOT NULL THEN
                    address := invitee.email;
                END IF;
            ELSE
                RAISE EXCEPTION 'A share participant needs a user record name or an e-mail '
                    'address' USING ERRCODE = 'CV012';
            END IF;
            CONTINUE WHEN invitee.id = me.id;
            v_key := CASE WHEN address IS NULL THEN NULL ELSE email_key(address) END;
            -- Each person once.
            CONTINUE WHEN COALESCE('a' || invitee.id::TEXT, 'e' || v_key) = ANY (seen);
            seen := seen || COALESCE('a' || invitee.id::TEXT, 'e' || v_key);

            v_permission := CASE WHEN (entry->>'permission') IN ('1', '2', '3')
                               THEN (entry->>'permission')::BIGINT ELSE 2 END;
            v_status := 1;
            SELECT (e->>'status')::BIGINT INTO known FROM json_array_elements(previous) e
                WHERE (invitee.id IS NOT NULL AND (e->>'account')::BIGINT = invitee.id)
                   OR (v_key IS NOT NULL AND e->>'key' = v_key
                       AND (invitee.id IS NULL OR e->>'account' IS NULL))
                LIMIT 1;
            IF FOUND THEN
                v_status := known;
                -- Someone who left or was removed is invited again only by a fresh entry (from a
                -- look-up, status unknown) or one that says pending; an owner's stale copy that
                -- still shows them accepted does not bring them back.
                IF (v_status = 3 AND COALESCE(entry->>'status', '0') IN ('0', '1'))
                   OR v_status NOT IN (1, 2, 3) THEN
                    v_status := 1;
                END IF;
            END IF;
            INSERT INTO participants (zone_id, position, account_id, email, email_key, type,
                                      status, permission)
                VALUES (_zone_id, v_position, invitee.id, address, v_key, 3, v_status,
                        v_permission);
            v_position := v_position + 1;
        END LOOP;
    END IF;
END $$;

-- The people's functions.

-- The caller's account and the store's layout number.
CREATE OR REPLACE FUNCTION corvane.sign_in(
    OUT id BIGINT, OUT record_name TEXT, OUT email TEXT, OUT given_name TEXT,
    OUT family_name TEXT, OUT layout BIGINT)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts := person();
BEGIN
    id := me.id;
    record_name := me.record_name;
    email := me.email;
    given_name := me.given_name;
    family_name := me.family_name;
    SELECT s.value::BIGINT INTO layout FROM settings s WHERE s.name = 'layout';
END $$;

-- The zones of one database, oldest first: the caller's own (owner empty) or those shared with
-- them and accepted (owner: the owner's record name).
CREATE OR REPLACE FUNCTION corvane.list_zones(_scope INT)
RETURNS TABLE (zone TEXT, owner TEXT)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts := person();
BEGIN
    IF _scope = 2 THEN
        RETURN QUERY SELECT z.name, NULL::TEXT FROM zones z WHERE z.owner_id = me.id
            ORDER BY z.id;
    ELSIF _scope = 3 THEN
        RETURN QUERY SELECT z.name, a.record_name FROM participants p
            JOIN zones z ON z.id = p.zone_id JOIN accounts a ON a.id = z.owner_id
            WHERE p.account_id = me.id AND p.status = 2 AND z.owner_id <> me.id
            ORDER BY z.id;
    END IF;
END $$;

-- The zones of list_zones, each with a version of its records of the given names and of its
-- people: a text that changes when one of those records is saved or deleted, or when someone is
-- invited, answers or leaves. What a list polls, in one call, before it reads anything again.
CREATE OR REPLACE FUNCTION corvane.zone_versions(_scope INT, _names TEXT[])
RETURNS TABLE (zone TEXT, owner TEXT, version TEXT)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts := person();
BEGIN
    RETURN QUERY SELECT z.name, CASE WHEN _scope = 3 THEN a.record_name END,
            coalesce((SELECT string_agg(r.name || ':' || r.change_tag, ' ' ORDER BY r.name)
                      FROM records r WHERE r.zone_id = z.id AND r.name = ANY (_names)), '')
            || '|' ||
            coalesce((SELECT string_agg(concat_ws(':', p.position, p.account_id, p.status,
                                                  p.permission), ' ' ORDER BY p.position)
                      FROM participants p WHERE p.zone_id = z.id), '')
        FROM zones z JOIN accounts a ON a.id = z.owner_id
        WHERE (_scope = 2 AND z.owner_id = me.id)
           OR (_scope = 3 AND z.owner_id <> me.id AND EXISTS (
                SELECT 1 FROM participants mine WHERE mine.zone_id = z.id
                    AND mine.account_id = me.id AND mine.status = 2))
        ORDER BY z.id;
END $$;

CREATE OR REPLACE FUNCTION corvane.create_zone(_zone TEXT) RETURNS VOID
LANGUAGE plpgsql VOLATILE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts := person();
BEGIN
    IF COALESCE(_zone, '') = '' OR octet_length(_zone) > 255 THEN
        RAISE EXCEPTION 'A zone needs a name of at most 255 bytes' USING ERRCODE = 'CV012';
    END IF;
    INSERT INTO zones (owner_id, name, created) VALUES (me.id, _zone, now_ms())
        ON CONFLICT (owner_id, name) DO NOTHING;
END $$;

-- Deletes an own zone with all it holds; leaves a shared one (the caller's place becomes
-- "removed"). Code 26 when the zone is not reached.
CREATE OR REPLACE FUNCTION corvane.delete_zone(_scope INT, _owner TEXT, _zone TEXT)
RETURNS VOID
LANGUAGE plpgsql VOLATILE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts := person();
    found RECORD;
BEGIN
    SELECT * INTO found FROM reach(me, _scope, _owner, _zone, NULL, true);
    IF found.zone_id IS NULL THEN
        RAISE EXCEPTION 'Zone % does not exist', _zone USING ERRCODE = 'CV026';
    END IF;
    IF found.owned THEN
        DELETE FROM zones z WHERE z.id = found.zone_id;
    ELSE
        UPDATE participants p SET status = 3
            WHERE p.zone_id = found.zone_id AND p.account_id = me.id;
    END IF;
END $$;

-- Records of one zone by name. A zone that is not reached gives one row of nulls; a name that
-- does not exist gives no row. A share record comes with its share (share_json).
CREATE OR REPLACE FUNCTION corvane.fetch_records(
    _scope INT, _owner TEXT, _zone TEXT, _token TEXT, _names TEXT[])
RETURNS TABLE (name TEXT, type TEXT, parent TEXT, fields BYTEA, change_tag TEXT,
               created BIGINT, modified BIGINT, share TEXT)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
#variable_conflict use_column
DECLARE
    me accounts := person();
    found RECORD;
BEGIN
    SELECT * INTO found FROM reach(me, _scope, _owner, _zone, _token, false);
    IF found.zone_id IS NULL THEN
        RETURN NEXT;
        RETURN;
    END IF;
    RETURN QUERY SELECT c.name, c.type, c.parent, c.fields, c.change_tag, c.created, c.modified,
            CASE WHEN c.type = 'cloud.share' THEN share_json(found.zone_id) END
        FROM records c WHERE c.zone_id = found.zone_id AND c.name = ANY (_names);
END $$;

-- The pieces of contents of one zone, in order. Contents belong to their zone, so a person
-- reads only what the records they may read use.
CREATE OR REPLACE FUNCTION corvane.read_contents(
    _scope INT, _owner TEXT, _zone TEXT, _token TEXT, _hashes TEXT[])
RETURNS TABLE (hash TEXT, seq BIGINT, data BYTEA)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
#variable_conflict use_column
DECLARE
    target_zone BIGINT := readable_zone(person(), _scope, _owner, _zone, _token);
BEGIN
    RETURN QUERY SELECT k.hash, k.seq, k.data FROM asset_chunks k
        WHERE k.zone_id = target_zone AND k.hash = ANY (_hashes)
        ORDER BY k.hash, k.seq;
END $$;

-- Which of the contents a writer of the zone still has to store there. Locks the zone for the
-- rest of the transaction.
CREATE OR REPLACE FUNCTION corvane.missing_contents(
    _scope INT, _owner TEXT, _zone TEXT, _hashes TEXT[])
RETURNS SETOF TEXT
LANGUAGE plpgsql VOLATILE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    target RECORD;
BEGIN
    SELECT * INTO target FROM writable_zone(person(), _scope, _owner, _zone);
    RETURN QUERY SELECT DISTINCT h FROM unnest(_hashes) h WHERE NOT EXISTS
        (SELECT 1 FROM assets a WHERE a.zone_id = target.zone_id AND a.hash = h);
END $$;

-- Stores pieces of contents in the zone: piece i is number seqs[i] of the content hashes[i],
-- sizes[i] bytes long in all (an empty content is one empty piece). A content is in place once
-- its last piece arrived and its bytes hash to its name; pieces of a content the zone holds
-- already are ignored. The contents must be used by a record before the transaction commits.
CREATE OR REPLACE FUNCTION corvane.store_contents(
    _scope INT, _owner TEXT, _zone TEXT, _hashes TEXT[], _sizes BIGINT[], _seqs BIGINT[],
    _pieces BYTEA[])
RETURNS VOID
LANGUAGE plpgsql VOLATILE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    target RECORD;
    piece RECORD;
    total BIGINT;
    pieces BIGINT;
    whole BYTEA;
BEGIN
    SELECT * INTO target FROM writable_zone(person(), _scope, _owner, _zone);
    IF cardinality(_hashes) <> cardinality(_sizes) OR cardinality(_hashes) <> cardinality(_seqs)
       OR cardinality(_hashes) <> cardinality(_pieces) THEN
        RAISE EXCEPTION 'The pieces of contents do not match their names' USING ERRCODE = 'CV012';
    END IF;
    -- One pass over the arguments: reading an element of a large one by its number would copy
    -- all of it.
    FOR piece IN SELECT * FROM unnest(_hashes, _sizes, _seqs, _pieces) AS p(hash, size, seq, data)
    LOOP
        IF piece.hash IS NULL OR piece.hash !~ '^[0-9a-f]{64}$' OR piece.size IS NULL
           OR piece.size < 0 OR piece.seq IS NULL OR piece.seq < 0 OR piece.data IS NULL THEN
            RAISE EXCEPTION 'Invalid piece of content %', piece.hash USING ERRCODE = 'CV012';
        END IF;
        -- The server checks a content whole, in memory.
        IF piece.size > 512 * 1024 * 1024 THEN
            RAISE EXCEPTION 'A content of more than 512 MiB cannot be stored in a team store'
                USING ERRCODE = 'CV025';
        END IF;
        CONTINUE WHEN EXISTS (SELECT 1 FROM assets a
                              WHERE a.zone_id = target.zone_id AND a.hash = piece.hash);
        INSERT INTO asset_chunks (zone_id, hash, seq, data)
            VALUES (target.zone_id, piece.hash, piece.seq, piece.data);
        IF piece.seq = 0 AND octet_length(piece.data) = piece.size
           AND NOT EXISTS (SELECT 1 FROM asset_chunks k WHERE k.zone_id = target.zone_id
                           AND k.hash = piece.hash AND k.seq <> 0) THEN
            -- A content in one piece, as most are.
            total := piece.size;
            pieces := 1;
            whole := piece.data;
        ELSE
            SELECT sum(octet_length(k.data)), count(*) INTO total, pieces FROM asset_chunks k
                WHERE k.zone_id = target.zone_id AND k.hash = piece.hash;
            IF total > piece.size THEN
                RAISE EXCEPTION 'The content % is longer than its size', piece.hash
                    USING ERRCODE = 'CV017';
            END IF;
            CONTINUE WHEN total < piece.size;
            SELECT string_agg(k.data, ''::BYTEA ORDER BY k.seq) INTO whole FROM asset_chunks k
                WHERE k.zone_id = target.zone_id AND k.hash = piece.hash;
            IF (SELECT max(k.seq) FROM asset_chunks k
                WHERE k.zone_id = target.zone_id AND k.hash = piece.hash) <> pieces - 1 THEN
                RAISE EXCEPTION 'The pieces of content % are not numbered in turn', piece.hash
                    USING ERRCODE = 'CV017';
            END IF;
        END IF;
        IF encode(sha256(COALESCE(whole, ''::BYTEA)), 'hex') <> piece.hash THEN
            RAISE EXCEPTION 'The stored content % does not match its name', piece.hash
                USING ERRCODE = 'CV017';
        END IF;
        INSERT INTO assets (zone_id, hash, size) VALUES (target.zone_id, piece.hash, total);
    END LOOP;
END $$;

-- Saves records of one zone: record i is names[i] of type types[i] with parent parents[i] ('':
-- none), encoded fields[i], and the change tag tags[i] the caller last saw ('': a new record);
-- it uses the contents use_hashes[k] where use_records[k] = i, which must be in the zone. A
-- share record's share is shares->names[i] (write_share). Policy 0 saves only records whose
-- tag is current; 2 overwrites. One row per record tried, in order: code 0 and the stored
-- tag, dates and share, or the code and message of its refusal. A refused record leaves no
-- trace; when atomic, the first refusal ends the save (the caller rolls it back).
CREATE OR REPLACE FUNCTION corvane.save_records(
    _scope INT, _owner TEXT, _zone TEXT, _policy INT, _atomic BOOLEAN, _names TEXT[],
    _types TEXT[], _parents TEXT[], _fields BYTEA[], _tags TEXT[], _use_records BIGINT[],
    _use_hashes TEXT[], _shares JSON)
RETURNS TABLE (name TEXT, code INT, message TEXT, change_tag TEXT, created BIGINT,
               modified BIGINT, share TEXT)
LANGUAGE plpgsql VOLATILE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
#variable_conflict use_column
DECLARE
    me accounts := person();
    target RECORD;
    item RECORD;
    stored RECORD;
    saved_id BIGINT;
    saved BIGINT[] := '{}';
    lacking BIGINT[];
    released TEXT[];
    stamp BIGINT;
    tag TEXT;
BEGIN
    IF cardinality(_names) <> cardinality(_types) OR cardinality(_names) <> cardinality(_parents)
       OR cardinality(_names) <> cardinality(_fields) OR cardinality(_names) <> cardinality(_tags)
       OR cardinality(_use_records) <> cardinality(_use_hashes) THEN
        RAISE EXCEPTION 'The records to save do not match their fields' USING ERRCODE = 'CV012';
    END IF;
    BEGIN
        SELECT * INTO target FROM writable_zone(me, _scope, _owner, _zone);
    EXCEPTION WHEN SQLSTATE 'CV010' OR SQLSTATE 'CV011' THEN
        RETURN QUERY SELECT n, substr(SQLSTATE, 3)::INT, SQLERRM, NULL::TEXT, NULL::BIGINT,
            NULL::BIGINT, NULL::TEXT FROM unnest(_names) n;
        RETURN;
    END;
    -- The records that use a content the zone does not hold. Arrays are read in one pass each:
    -- reading an element of a large argument by its number copies the whole argument.
    SELECT COALESCE(array_agg(DISTINCT u.k), '{}') INTO lacking
        FROM unnest(_use_records, _use_hashes) AS u(k, h)
        WHERE NOT EXISTS (SELECT 1 FROM assets a WHERE a.zone_id = target.zone_id AND a.hash = u.h);

    <<records>>
    FOR item IN SELECT * FROM unnest(_names, _types, _parents, _fields, _tags)
            WITH ORDINALITY AS r(name, type, parent, fields, tag, i) LOOP
        saved_id := NULL;
        BEGIN
            IF COALESCE(item.name, '') = '' OR COALESCE(item.type, '') = '' OR item.fields IS NULL
            THEN
                RAISE EXCEPTION 'A record needs a name, a type and fields' USING ERRCODE = 'CV012';
            END IF;
            IF item.type = 'cloud.share' AND NOT target.owned THEN
                RAISE EXCEPTION 'Only the owner of a zone can change its share'
                    USING ERRCODE = 'CV010';
            END IF;
            IF item.i = ANY (lacking) THEN
                RAISE EXCEPTION 'Record % uses a content that is not stored', item.name
                    USING ERRCODE = 'CV012';
            END IF;
            SELECT c.id, c.change_tag, c.type, c.created INTO stored FROM records c
                WHERE c.zone_id = target.zone_id AND c.name = item.name;
            IF _policy = 0 AND stored.id IS NOT NULL
               AND stored.change_tag IS DISTINCT FROM NULLIF(item.tag, '') THEN
                RAISE EXCEPTION 'Record % was changed by another save', item.name
                    USING ERRCODE = 'CV014';
            END IF;
            IF _policy = 0 AND stored.id IS NULL AND COALESCE(item.tag, '') <> '' THEN
                RAISE EXCEPTION 'Record % does not exist any more', item.name
                    USING ERRCODE = 'CV011';
            END IF;
            IF stored.id IS NOT NULL AND (stored.type = 'cloud.share') <> (item.type = 'cloud.share')
            THEN
                RAISE EXCEPTION 'Record % cannot change between share and plain record', item.name
                    USING ERRCODE = 'CV012';
            END IF;

            stamp := now_ms();
            tag := left(random_hex(), 16);
            IF stored.id IS NOT NULL THEN
                saved_id := stored.id;
                UPDATE records c SET type = item.type, parent = NULLIF(item.parent, ''),
                    fields = item.fields, change_tag = tag, modified = stamp
                    WHERE c.id = saved_id;
            ELSE
                INSERT INTO records (zone_id, name, type, parent, fields, change_tag, created,
                                     modified)
                    VALUES (target.zone_id, item.name, item.type, NULLIF(item.parent, ''),
                            item.fields, tag, stamp, stamp)
                    RETURNING records.id INTO saved_id;
            END IF;
            IF item.type = 'cloud.share' THEN
                PERFORM write_share(me, target.zone_id, _zone, saved_id, _shares->item.name);
            END IF;
            RETURN QUERY SELECT item.name, 0, NULL::TEXT, tag, COALESCE(stored.created, stamp),
                stamp,
                CASE WHEN item.type = 'cloud.share' THEN share_json(target.zone_id) END;
        EXCEPTION WHEN OTHERS THEN
            IF SQLSTATE NOT LIKE 'CV%' THEN
                RAISE;
            END IF;
            saved_id := NULL;
            RETURN QUERY SELECT item.name, substr(SQLSTATE, 3)::INT, SQLERRM, NULL::TEXT,
                NULL::BIGINT, NULL::BIGINT, NULL::TEXT;
            EXIT records WHEN _atomic;
        END;
        saved := saved || saved_id;
    END LOOP;

    -- The saved records use exactly their contents now; contents no record of the zone uses any
    -- more (given up by a record, or stored for one that was refused) go with their pieces.
    WITH dropped AS (
        DELETE FROM asset_refs r WHERE r.record_id = ANY (saved) RETURNING r.hash)
    SELECT COALESCE(array_agg(DISTINCT d.hash), '{}') INTO released FROM dropped d;
    INSERT INTO asset_refs (record_id, zone_id, hash)
        SELECT DISTINCT s.id, target.zone_id, u.h
        FROM unnest(saved) WITH ORDINALITY AS s(id, k)
        JOIN unnest(_use_records, _use_hashes) AS u(k, h) ON u.k = s.k
        WHERE s.id IS NOT NULL;
    DELETE FROM assets a WHERE a.zone_id = target.zone_id
        AND a.hash IN (SELECT unnest(released) UNION SELECT unnest(_use_hashes))
        AND NOT EXISTS (SELECT 1 FROM asset_refs r WHERE r.zone_id = a.zone_id AND r.hash = a.hash);
END $$;

-- A person of the store by e-mail address, to invite; no row when there is none.
CREATE OR REPLACE FUNCTION corvane.look_up_person(_email TEXT)
RETURNS TABLE (record_name TEXT, email TEXT, given_name TEXT, family_name TEXT)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
#variable_conflict use_column
BEGIN
    PERFORM person();
    RETURN QUERY SELECT a.record_name, a.email, a.given_name, a.family_name FROM accounts a
        WHERE a.email_key = email_key(_email);
END $$;

-- What a share link opens for the caller: the zone, its owner, the share's records and the
-- caller's place. Code 11 unless the caller owns the zone or the share lists them, not removed.
CREATE OR REPLACE FUNCTION corvane.open_share(_token TEXT)
RETURNS TABLE (zone TEXT, owner_record_name TEXT, owner_email TEXT, owner_given_name TEXT,
               owner_family_name TEXT, root_name TEXT, share_name TEXT, is_owner BOOLEAN,
               type BIGINT, status BIGINT, permission BIGINT, place BIGINT)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
#variable_conflict use_column
DECLARE
    me accounts := person();
    found RECORD;
    place RECORD;
BEGIN
    SELECT s.zone_id, s.root_name, z.name AS zone_name, z.owner_id, c.name AS share_name,
           a.record_name, a.email, a.given_name, a.family_name
        INTO found FROM shares s JOIN zones z ON z.id = s.zone_id
        JOIN records c ON c.id = s.record_id JOIN accounts a ON a.id = z.owner_id
        WHERE s.token = _token;
    IF found.zone_id IS NULL THEN
        RAISE EXCEPTION 'The share does not exist' USING ERRCODE = 'CV011';
    END IF;
    IF found.owner_id = me.id THEN
        RETURN QUERY SELECT found.zone_name, found.record_name, found.email, found.given_name,
            found.family_name, found.root_name, found.share_name, true, 1::BIGINT, 2::BIGINT,
            3::BIGINT, NULL::BIGINT;
        RETURN;
    END IF;
    SELECT p.position, p.type, p.status, p.permission INTO place FROM participants p
        WHERE p.zone_id = found.zone_id AND (p.account_id = me.id
            OR (p.account_id IS NULL AND p.email_key = me.email_key))
        ORDER BY p.position LIMIT 1;
    IF place.position IS NULL OR place.status = 3 THEN
        RAISE EXCEPTION 'The share does not exist' USING ERRCODE = 'CV011';
    END IF;
    RETURN QUERY SELECT found.zone_name, found.record_name, found.email, found.given_name,
        found.family_name, found.root_name, found.share_name, false, place.type, place.status,
        place.permission, place.position;
END $$;

-- Accepts the share the token names: the caller's place becomes accepted and bound to their
-- account (an invitation by address included). For the owner nothing changes.
CREATE OR REPLACE FUNCTION corvane.accept_share(_token TEXT) RETURNS VOID
LANGUAGE plpgsql VOLATILE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts := person();
    place RECORD;
BEGIN
    -- The owner's changes of people take the same lock, so the place found is still the
    -- caller's when it is answered.
    PERFORM 1 FROM zones z JOIN shares s ON s.zone_id = z.id WHERE s.token = _token
        FOR UPDATE OF z;
    SELECT * INTO place FROM open_share(_token);
    IF NOT place.is_owner THEN
        UPDATE participants p SET status = 2, account_id = me.id
            FROM shares s WHERE s.token = _token AND p.zone_id = s.zone_id
            AND p.position = place.place AND p.status <> 3
            AND (p.account_id = me.id OR (p.account_id IS NULL AND p.email_key = me.email_key));
    END IF;
END $$;

-- How many contents the caller's own zones hold, and their bytes.
CREATE OR REPLACE FUNCTION corvane.storage_usage(OUT contents BIGINT, OUT bytes BIGINT)
LANGUAGE plpgsql STABLE SECURITY DEFINER SET search_path = pg_catalog, corvane, pg_temp AS $$
DECLARE
    me accounts := person();
BEGIN
    SELECT count(*), COALESCE(sum(a.size), 0) INTO contents, bytes FROM assets a
        JOIN zones z ON z.id = a.zone_id WHERE z.owner_id = me.id;
END $$;

-- A team store of layout 2 kept its tables in the schema public, with row-level security in
-- place of this door, and contents shared between zones: its rows move here, each content
-- copied into every zone that uses it, and the old tables and functions go.
DO $$
BEGIN
    IF to_regclass('public.settings') IS NULL OR to_regclass('public.participants') IS NULL
       OR EXISTS (SELECT 1 FROM corvane.settings WHERE name = 'layout') THEN
        RETURN;
    END IF;
    INSERT INTO corvane.accounts (id, record_name, email, email_key, given_name, family_name,
                                  role_name) OVERRIDING SYSTEM VALUE
        SELECT id, record_name, email, email_key, given_name, family_name, role_name
        FROM public.accounts;
    INSERT INTO corvane.zones (id, owner_id, name, created) OVERRIDING SYSTEM VALUE
        SELECT id, owner_id, name, created FROM public.zones;
    INSERT INTO corvane.records (id, zone_id, name, type, parent, fields, change_tag, created,
                                 modified) OVERRIDING SYSTEM VALUE
        SELECT id, zone_id, name, type, parent, fields, change_tag, created, modified
        FROM public.records;
    INSERT INTO corvane.assets (zone_id, hash, size)
        SELECT DISTINCT c.zone_id, a.hash, a.size FROM public.asset_refs r
        JOIN public.records c ON c.id = r.record_id JOIN public.assets a ON a.hash = r.hash;
    INSERT INTO corvane.asset_chunks (zone_id, hash, seq, data)
        SELECT a.zone_id, k.hash, k.seq, k.data FROM corvane.assets a
        JOIN public.asset_chunks k ON k.hash = a.hash;
    INSERT INTO corvane.asset_refs (record_id, zone_id, hash)
        SELECT r.record_id, c.zone_id, r.hash FROM public.asset_refs r
        JOIN public.records c ON c.id = r.record_id
        JOIN public.assets a ON a.hash = r.hash;
    INSERT INTO corvane.shares (zone_id, record_id, token, url, root_name, title, thumbnail)
        SELECT zone_id, record_id, token, url, root_name, title, thumbnail FROM public.shares;
    INSERT INTO corvane.participants (zone_id, position, account_id, email, email_key, type,
                                      status, permission)
        SELECT zone_id, position, account_id, email, email_key, type, status, permission
        FROM public.participants;
    PERFORM setval(pg_get_serial_sequence('corvane.accounts', 'id'),
                   (SELECT COALESCE(max(id), 0) + 1 FROM corvane.accounts), false);
    PERFORM setval(pg_get_serial_sequence('corvane.zones', 'id'),
                   (SELECT COALESCE(max(id), 0) + 1 FROM corvane.zones), false);
    PERFORM setval(pg_get_serial_sequence('corvane.records', 'id'),
                   (SELECT COALESCE(max(id), 0) + 1 FROM corvane.records), false);
    DROP TABLE public.settings, public.accounts, public.zones, public.records, public.assets,
        public.asset_chunks, public.asset_refs, public.shares, public.participants CASCADE;
    DROP FUNCTION IF EXISTS public.corvane_me(), public.corvane_owns(BIGINT),
        public.corvane_member_zones(), public.corvane_reached_zones(),
        public.corvane_asset_unused(TEXT), public.corvane_asset_readable(TEXT),
        public.corvane_record_writable(BIGINT), public.corvane_check_asset(),
        public.corvane_check_chunk() CASCADE;
END $$;
