-- SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
-- SPDX-License-Identifier: MIT

-- Sorts that spill, hash aggregates, parallel workers, an index, notices.
set work_mem = '1MB';
set parallel_setup_cost = 0;
set parallel_tuple_cost = 0;
set min_parallel_table_scan_size = 0;
set max_parallel_workers_per_gather = 2;
create table t as
    select n, n * 7919 % 100003 as k, md5(n::text) as v from generate_series(1, 200000) n;
create index on t (k);
analyze t;
select count(*), sum(k), md5(string_agg(v, '' order by v)) from t;
select k % 10 as d, count(distinct v), min(v), max(v) from t group by d order by d;
select a.n, b.v from t a join t b on a.k = b.n where a.n < 20 order by a.n;
listen news;
notify news;
update t set v = md5(v) where k % 3 = 0;
vacuum analyze t;
select md5(string_agg(v, '' order by n)) from t;
select pg_sleep(0.3);
