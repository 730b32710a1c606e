// Resolving the expressions of one location, as the location walk does before each transfer.

#include <benchmark/benchmark.h>

#include "expression/ExpressionResolver.h"
#include "support/TypicalDevice.h"

namespace {

// Three plain expressions, one conditional and one with a nested expression.
void replaceAllExpressionsInLocation(benchmark::State& state) {
    ExpressionResolver resolver;
    provtest::fillTypicalDevice(resolver);
    const String location =
        "http://$(dhcp.66)/cfg/$(system.hw.major>=2|new|old)/"
        "$(system.mac)-$(system.sw.major=$(cli.major)|a|b).cfg";
    for (auto _ : state) {
        String text = location;
        XCode result = resolver.replaceAllExpressions(text);
        benchmark::DoNotOptimize(result);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(replaceAllExpressionsInLocation);

// The same location without expressions: the cost of a location that needs nothing.
void replaceAllExpressionsWithoutExpression(benchmark::State& state) {
    ExpressionResolver resolver;
    provtest::fillTypicalDevice(resolver);
    const String location = "http://192.168.1.10/cfg/new/00A0BA0B0C0D-a.cfg";
    for (auto _ : state) {
        String text = location;
        XCode result = resolver.replaceAllExpressions(text);
        benchmark::DoNotOptimize(result);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(replaceAllExpressionsWithoutExpression);

}  // namespace

BENCHMARK_MAIN();
