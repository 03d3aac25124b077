// Runs a list of basic-ftp calls on one connection, with the client's default options, and prints
// one JSON object: {"results": [...]} (one entry per step) or {"error": "...", "step": N}.
// With "verbose": true the client's FTP conversation goes to standard error.
//
//   node basic_ftp_steps.js '{"host": "::1", "port": 2121, "user": "u", "password": "p",
//                             "steps": [["list", "dir"], ["uploadFromDir", "local", "remote"],
//                                       ["downloadToDir", "local", "remote"]]}'
//
// Run it from this directory so that require() finds node_modules/basic-ftp.

"use strict";

const ftp = require("basic-ftp");

function entry(info) {
    return {
        name: info.name,
        size: info.size,
        isDirectory: info.isDirectory,
        isFile: info.isFile,
        modifiedAt: info.modifiedAt ? info.modifiedAt.toISOString() : null,
        rawModifiedAt: info.rawModifiedAt,
    };
}

async function main() {
    const job = JSON.parse(process.argv[2]);
    const client = new ftp.Client();
    client.ftp.verbose = Boolean(job.verbose);
    if (job.verbose) {
        client.ftp.log = (text) => process.stderr.write(text + "\n");
    }
    const results = [];
    let step = -1;
    try {
        await client.access({host: job.host, port: job.port, user: job.user, password: job.password});
        for (step = 0; step < job.steps.length; step++) {
            const [call, ...args] = job.steps[step];
            if (call === "list") {
                results.push((await client.list(...args)).map(entry));
            } else if (call === "uploadFromDir" || call === "downloadToDir") {
                await client[call](...args);
                results.push(null);
            } else {
                throw new Error("unknown step " + call);
            }
        }
        process.stdout.write(JSON.stringify({results}) + "\n");
    } catch (err) {
        process.stdout.write(JSON.stringify({error: String(err && err.stack || err), step}) + "\n");
        process.exitCode = 1;
    } finally {
        client.close();
    }
}

main();
