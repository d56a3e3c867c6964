// tarn-bench: all benchmarks. bench/run prepares what they need and calls it.
#include "Pair.h"

int main(int argc, char** argv) { return bench::main(argc, argv); }
