// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

import java.io.ByteArrayOutputStream;
import java.security.MessageDigest;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.stream.LongStream;
import java.util.zip.GZIPOutputStream;

/** Threads with small stacks, garbage, and what is done by signals: null, stack overflow. */
public class Work {
    static int fall(int level, int[] depth) {
        depth[0] = level;
        return fall(level + 1, depth) + 1;
    }

    static String overflow() {
        // Of this thread alone: several overflow at once.
        int[] depth = new int[1];
        for (int round = 0; round < 20; ++round) {
            try {
                fall(0, depth);
                return "did not overflow";
            } catch (StackOverflowError expected) {
                if (depth[0] < 100) {
                    return "overflowed at once";
                }
            }
        }
        return "overflowed";
    }

    static int nulls() {
        int caught = 0;
        String[] texts = new String[2];
        for (int i = 0; i < 200000; ++i) {
            try {
                caught += texts[i % 2].length();
            } catch (NullPointerException expected) {
                ++caught;
            }
        }
        return caught;
    }

    static String churn(int seed) throws Exception {
        HashMap<Integer, String> kept = new HashMap<>();
        int sum = seed;
        for (int i = 0; i < 600000; ++i) {
            sum = sum * 1103515245 + 12345;
            kept.put(Math.floorMod(sum, 5000), "v" + sum);
        }
        ByteArrayOutputStream packed = new ByteArrayOutputStream();
        try (GZIPOutputStream out = new GZIPOutputStream(packed)) {
            for (int key = 0; key < 5000; ++key) {
                out.write(String.valueOf(kept.get(key)).getBytes("UTF-8"));
            }
        }
        byte[] digest = MessageDigest.getInstance("SHA-256").digest(packed.toByteArray());
        return new java.math.BigInteger(1, digest).toString(16);
    }

    public static void main(String[] arguments) throws Exception {
        ExecutorService pool = Executors.newFixedThreadPool(6);
        List<Future<String>> results = new ArrayList<>();
        for (int i = 0; i < 24; ++i) {
            final int seed = i;
            results.add(pool.submit(() -> churn(seed)));
        }
        for (int i = 0; i < 6; ++i) {
            results.add(pool.submit(Work::overflow));
            results.add(pool.submit(() -> String.valueOf(nulls())));
        }
        for (Future<String> result : results) {
            System.out.println(result.get());
        }
        pool.shutdown();
        System.out.println(LongStream.range(0, 3000000).parallel().map(n -> n * n % 7).sum());
        Thread[] many = new Thread[200];
        final long[] sums = new long[many.length];
        for (int i = 0; i < many.length; ++i) {
            final int at = i;
            many[i] = new Thread(() -> sums[at] = LongStream.range(0, 1000 * at).sum());
            many[i].start();
        }
        for (Thread each : many) {
            each.join();
        }
        System.out.println(LongStream.of(sums).sum());
    }
}
