// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Garbage that many goroutines make, whose collector stops them by signals.
package main

import (
	"C" // makes it a program with a dynamic linker
	"crypto/sha256"
	"fmt"
	"os/exec"
	"runtime"
	"sort"
	"sync"
)

func churn(seed uint32) string {
	kept := map[uint32][]byte{}
	sum := seed
	for i := 0; i < 300000; i++ {
		sum = sum*1103515245 + 12345
		kept[sum%5000] = []byte(fmt.Sprint("v", sum))
	}
	keys := make([]int, 0, len(kept))
	for key := range kept {
		keys = append(keys, int(key))
	}
	sort.Ints(keys)
	digest := sha256.New()
	for _, key := range keys {
		digest.Write(kept[uint32(key)])
	}
	return fmt.Sprintf("%x", digest.Sum(nil))
}

func main() {
	results := make([]string, 40)
	var group sync.WaitGroup
	for i := range results {
		group.Add(1)
		go func(at int) {
			defer group.Done()
			results[at] = churn(uint32(at))
			runtime.GC()
		}(i)
	}
	group.Wait()
	for _, result := range results {
		fmt.Println(result)
	}
	for i := 0; i < 20; i++ {
		output, err := exec.Command("/bin/echo", fmt.Sprint(i)).Output()
		fmt.Print(string(output), err, "\n")
	}
}
