// The credentials store as the HTTP download uses it after a 401: the challenged realm's entry,
// or the wild-card's for a realm without one; and the copy every job takes of the host's store.

#include <benchmark/benchmark.h>

#include "transfer/ProvisioningCredentials.h"

namespace {

// `realms` named realms ("realm-0" ...) and the wild-card.
ProvisioningCredentials makeStore(int realms) {
    ProvisioningCredentials store;
    for (int i = 0; i < realms; ++i) {
        XCode added = store.add(String::format("realm-%d", i), String::format("user-%d", i),
                                String::format("password-%d", i));
        benchmark::DoNotOptimize(added);
    }
    XCode added = store.add("", "anyone", "secret");
    benchmark::DoNotOptimize(added);
    return store;
}

void BM_CredentialsGetRealm(benchmark::State& state) {
    const int realms = static_cast<int>(state.range(0));
    const ProvisioningCredentials store = makeStore(realms);
    const String realm = String::format("realm-%d", realms / 2);
    String user;
    String password;
    for (auto _ : state) {
        XCode found = store.get(realm, user, password);
        benchmark::DoNotOptimize(found);
        benchmark::DoNotOptimize(user);
    }
}
BENCHMARK(BM_CredentialsGetRealm)->Arg(1)->Arg(16)->Arg(256);

void BM_CredentialsGetWildCard(benchmark::State& state) {
    const ProvisioningCredentials store = makeStore(static_cast<int>(state.range(0)));
    const String realm = "unknown realm";
    String user;
    String password;
    for (auto _ : state) {
        XCode found = store.get(realm, user, password);
        benchmark::DoNotOptimize(found);
        benchmark::DoNotOptimize(user);
    }
}
BENCHMARK(BM_CredentialsGetWildCard)->Arg(1)->Arg(16)->Arg(256);

void BM_CredentialsCopy(benchmark::State& state) {
    const ProvisioningCredentials store = makeStore(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        ProvisioningCredentials copy(store);
        benchmark::DoNotOptimize(&copy);
    }
}
BENCHMARK(BM_CredentialsCopy)->Arg(1)->Arg(16)->Arg(256);

}  // namespace

BENCHMARK_MAIN();
