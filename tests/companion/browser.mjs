// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// What both tests share: where things are, and a browser that talks to nobody.

import {createRequire} from 'node:module';
import path from 'node:path';

/** The program under test, and a folder with the packages of package.json in it. */
export const program = process.env.THREAD_UTILITIES_PROGRAM;
export const folder = process.env.THREAD_UTILITIES_TEST_FOLDER;
export const modules = createRequire(path.join(folder, 'package.json')).resolve;

export async function open(address, options = {}) {
    const {chromium} = (await import(modules('playwright-core'))).default;
    // Each time with a new profile folder, which goes with it.
    const browser = await chromium.launch({
        executablePath: '/usr/bin/chromium', headless: true,
        args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking',
            '--disable-component-update', '--disable-sync'],
    });
    const page = await browser.newPage(options);
    page.setDefaultTimeout(120000);
    const complaints = [];
    const requests = [];
    page.on('console', (message) => {
        if (['error', 'warning'].includes(message.type())) {
            complaints.push(message.text());
        }
    });
    page.on('pageerror', (error) => complaints.push(error.stack));
    page.on('request', (request) => requests.push(request.url()));
    await page.goto(address);
    return {browser, page, complaints, requests};
}
