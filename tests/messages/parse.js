// Reads an AsyncAPI document with AsyncAPI's own parser; tests/messages/parse has installed it.
const { Parser, fromFile } = require('@asyncapi/parser');

async function main(path) {
    const { document, diagnostics } = await fromFile(new Parser(), path).parse();
    let faults = document ? 0 : 1;
    for (const each of diagnostics) {
        // Severities from 0, an error, to 3; a newer version of AsyncAPI than the document's is no fault.
        if (each.severity > 1 || each.code === 'asyncapi-latest-version') continue;
        console.log(`${path}:${each.range.start.line + 1}: ${each.path.join('.')}: ${each.message}`);
        faults++;
    }
    if (document) console.log(`${path}: ${document.allChannels().length} channels, ${document.allMessages().length} messages`);
    return faults ? 1 : 0;
}

main(process.argv[2]).then((code) => process.exit(code));
