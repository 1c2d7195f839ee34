-- The table examples/rows.lua's lines load into (ClickHouse, JSONEachRow).
-- One row per asset per collection; change is snapshot, added, changed or
-- removed; fields is the record as a JSON object (text).
CREATE TABLE IF NOT EXISTS assets
(
    host_id String,
    host String,
    collected_at DateTime,
    kind String,
    key String,
    change String,
    name String,
    version String,
    path String,
    fields String
)
ENGINE = MergeTree()
PARTITION BY toYYYYMM(collected_at)
ORDER BY (host_id, kind, key, collected_at)
