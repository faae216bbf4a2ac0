// ONNX Runtime as a peer of the benchmarks: one session on one thread, steered by lines on the
// standard input, so that the report can let it take turns with others.
//
//   node onnxruntime.mjs MODEL.onnx
//
//   input FILE    reads the input's floats                       answers: ok
//   output FILE   runs once and writes all outputs' floats       answers: ok
//   run N         runs N times, after one that isn't counted     answers: N times in nanoseconds
//   version                                                      answers: the version
//
// A time is taken around session.run() and so holds the cost of the binding to JavaScript. A model
// that does nothing shows how large that is.

import { readFileSync, writeFileSync } from 'node:fs';
import { createInterface } from 'node:readline';
import { createRequire } from 'node:module';
import * as ort from 'onnxruntime-node';

const session = await ort.InferenceSession.create(process.argv[2], {
  intraOpNumThreads: 1,
  interOpNumThreads: 1,
  executionMode: 'sequential',
  graphOptimizationLevel: 'all',
});

const makeTensor = ({ shape }) => {
  const size = shape.reduce((product, extent) => product * extent, 1);
  return new ort.Tensor('float32', new Float32Array(size), shape);
};
const makeTensors = (names, metadata) =>
  Object.fromEntries(names.map((name, i) => [name, makeTensor(metadata[i])]));

// Inputs and outputs are allocated once: a run allocates no tensor, as ours doesn't.
const feeds = makeTensors(session.inputNames, session.inputMetadata);
const fetches = makeTensors(session.outputNames, session.outputMetadata);

const floatsOf = (file) => {
  const bytes = readFileSync(file);
  return new Float32Array(bytes.buffer, bytes.byteOffset, bytes.byteLength / 4);
};

const commands = {
  input(file) {
    feeds[session.inputNames[0]].data.set(floatsOf(file));
    return 'ok';
  },
  async output(file) {
    await session.run(feeds, fetches);
    const bytes = session.outputNames.map((name) => Buffer.from(fetches[name].data.buffer));
    writeFileSync(file, Buffer.concat(bytes));
    return 'ok';
  },
  async run(count) {
    const times = [];
    await session.run(feeds, fetches);
    for (let i = 0; i < Number(count); ++i) {
      const start = process.hrtime.bigint();
      await session.run(feeds, fetches);
      times.push(process.hrtime.bigint() - start);
    }
    return times.join(' ');
  },
  version() {
    return createRequire(import.meta.url)('onnxruntime-node/package.json').version;
  },
};

for await (const line of createInterface({ input: process.stdin })) {
  const [name, argument] = line.split(' ');
  console.log(await commands[name](argument));
}
