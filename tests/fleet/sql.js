// sql.js ENGINE_FOLDER < JSON: runs statements in DuckDB, one after the other, in the current folder. Standard
// input is a list of them; standard output a list of what each gave: {"ms": ..., "rows": [[...], ...]}.
'use strict';
const {readFileSync} = require('fs');
const {DuckDBInstance} = require(`${process.argv[2]}/node_modules/@duckdb/node-api`);

const plain = (value) => (typeof value === 'bigint' ? Number(value) : value === null ? null : value.valueOf());

async function main() {
  const instance = await DuckDBInstance.create(':memory:');
  const connection = await instance.connect();
  const answers = [];
  for (const statement of JSON.parse(readFileSync(0, 'utf8'))) {
    const began = performance.now();
    const answer = await connection.runAndReadAll(statement);
    const ms = Math.round(performance.now() - began);
    answers.push({ms, rows: answer.getRows().map((row) => row.map(plain))});
  }
  process.stdout.write(JSON.stringify(answers));
}

main().catch((error) => {
  process.stderr.write(`${error.message}\n`);
  process.exit(1);
});
