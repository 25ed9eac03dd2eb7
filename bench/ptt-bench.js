// Times parse-torrent-title on the same names as bench_release (one JSON
// string a line) and prints the mean per name in microseconds.
const fs = require("fs");
const ptt = require(require("path").resolve(process.argv[3], "node_modules/parse-torrent-title"));
const names = fs.readFileSync(process.argv[2], "utf8").trim().split("\n").map((l) => JSON.parse(l));
for (const n of names.slice(0, 2000)) ptt.parse(n);  // warm up the JIT
const start = process.hrtime.bigint();
for (const n of names) ptt.parse(n);
const ns = Number(process.hrtime.bigint() - start);
console.log(JSON.stringify({ names: names.length, us_per_name: ns / 1000 / names.length }));
