#include "transfer/ProvisioningCredentials.h"

#include <gtest/gtest.h>

namespace {

TEST(ProvisioningCredentialsTest, emptyStoreFindsNothingAndLeavesTheOutputsAlone) {
    ProvisioningCredentials store;
    String user = "u0";
    String password = "p0";
    XCode result = store.get("x", user, password);
    EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
    EXPECT_EQ(result.getString(), "Neither credentials for realm 'x' nor wild-card realm found.");
    EXPECT_EQ(user, "u0");
    EXPECT_EQ(password, "p0");
}

TEST(ProvisioningCredentialsTest, realmEntryIsFound) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "alice", "secret").isSuccess());
    String user;
    String password;
    ASSERT_TRUE(store.get("dev", user, password).isSuccess());
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(password, "secret");
}

TEST(ProvisioningCredentialsTest, addingTheSameRealmTwiceFailsAndKeepsTheFirst) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "alice", "first").isSuccess());
    XCode result = store.add("dev", "bob", "second");
    EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
    EXPECT_EQ(result.getString(), "Credentials for realm 'dev' already exists.");
    String user;
    String password;
    ASSERT_TRUE(store.get("dev", user, password).isSuccess());
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(password, "first");
}

TEST(ProvisioningCredentialsTest, addingTheWildCardTwiceFails) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("", "any", "one").isSuccess());
    EXPECT_EQ(store.add("", "other", "two").getString(),
              "Credentials for realm '' already exists.");
    String user;
    String password;
    ASSERT_TRUE(store.get(user, password).isSuccess());
    EXPECT_EQ(user, "any");
}

TEST(ProvisioningCredentialsTest, realmDifferingInCaseIsNotFoundAndTheWildCardAnswers) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("Dev", "alice", "secret").isSuccess());
    String user = "u0";
    String password = "p0";
    EXPECT_EQ(store.get("dev", user, password).getString(),
              "Neither credentials for realm 'dev' nor wild-card realm found.");
    EXPECT_EQ(user, "u0");
    ASSERT_TRUE(store.add("", "wild", "card").isSuccess());
    ASSERT_TRUE(store.get("dev", user, password).isSuccess());
    EXPECT_EQ(user, "wild");
    EXPECT_EQ(password, "card");
    ASSERT_TRUE(store.get("Dev", user, password).isSuccess());
    EXPECT_EQ(user, "alice");
}

TEST(ProvisioningCredentialsTest, unknownRealmFallsBackToTheWildCard) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "alice", "secret").isSuccess());
    ASSERT_TRUE(store.add("", "wild", "card").isSuccess());
    String user;
    String password;
    ASSERT_TRUE(store.get("other", user, password).isSuccess());
    EXPECT_EQ(user, "wild");
    EXPECT_EQ(password, "card");
}

TEST(ProvisioningCredentialsTest, emptyRealmFindsTheWildCardAtOnce) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("", "wild", "card").isSuccess());
    String user;
    String password;
    ASSERT_TRUE(store.get("", user, password).isSuccess());
    EXPECT_EQ(user, "wild");
    EXPECT_EQ(password, "card");
}

TEST(ProvisioningCredentialsTest, wildCardGetUsesOnlyTheWildCard) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "alice", "secret").isSuccess());
    String user = "u0";
    String password = "p0";
    XCode result = store.get(user, password);
    EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
    EXPECT_EQ(result.getString(), "No credentials for wild-card realm found.");
    EXPECT_EQ(user, "u0");
    EXPECT_EQ(password, "p0");
    ASSERT_TRUE(store.add("", "wild", "card").isSuccess());
    ASSERT_TRUE(store.get(user, password).isSuccess());
    EXPECT_EQ(user, "wild");
    EXPECT_EQ(password, "card");
}

TEST(ProvisioningCredentialsTest, copyTakenBeforeALaterAddDoesNotSeeIt) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "alice", "secret").isSuccess());
    ProvisioningCredentials copy(store);
    ASSERT_TRUE(store.add("lab", "bob", "pw").isSuccess());
    String user;
    String password;
    EXPECT_TRUE(copy.get("lab", user, password).isErr());
    ASSERT_TRUE(copy.get("dev", user, password).isSuccess());
    EXPECT_EQ(user, "alice");
    ASSERT_TRUE(store.get("lab", user, password).isSuccess());
    EXPECT_EQ(user, "bob");
}

TEST(ProvisioningCredentialsTest, assignmentReplacesAllEntries) {
    ProvisioningCredentials source;
    ASSERT_TRUE(source.add("dev", "alice", "secret").isSuccess());
    ASSERT_TRUE(source.add("", "wild", "card").isSuccess());
    ProvisioningCredentials target;
    ASSERT_TRUE(target.add("old", "carol", "x").isSuccess());
    target = source;
    String user;
    String password;
    ASSERT_TRUE(target.get("old", user, password).isSuccess());
    EXPECT_EQ(user, "wild");  // "old" is gone: the wild-card answers
    ASSERT_TRUE(target.get("dev", user, password).isSuccess());
    EXPECT_EQ(user, "alice");
    // The copy is independent of its source.
    ASSERT_TRUE(target.add("new", "dave", "y").isSuccess());
    ASSERT_TRUE(source.get("new", user, password).isSuccess());
    EXPECT_EQ(user, "wild");
}

TEST(ProvisioningCredentialsTest, selfAssignmentKeepsEverything) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "alice", "secret").isSuccess());
    ProvisioningCredentials& alias = store;
    store = alias;
    String user;
    String password;
    ASSERT_TRUE(store.get("dev", user, password).isSuccess());
    EXPECT_EQ(user, "alice");
    EXPECT_EQ(password, "secret");
}

TEST(ProvisioningCredentialsTest, manyRealmsSharingBucketsAreAllFound) {
    ProvisioningCredentials store;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(store
                        .add(String::format("realm%d", i), String::format("user%d", i),
                             String::format("pw%d", i))
                        .isSuccess());
    }
    ProvisioningCredentials copy;
    copy = store;
    for (int i = 0; i < 100; ++i) {
        String user;
        String password;
        ASSERT_TRUE(copy.get(String::format("realm%d", i), user, password).isSuccess()) << i;
        EXPECT_EQ(user, String::format("user%d", i));
        EXPECT_EQ(password, String::format("pw%d", i));
    }
}

TEST(ProvisioningCredentialsTest, realmsAreComparedAsBytes) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add(String("a\0b", 3), "nul", "x").isSuccess());
    ASSERT_TRUE(store.add("a", "plain", "y").isSuccess());
    String user;
    String password;
    ASSERT_TRUE(store.get(String("a\0b", 3), user, password).isSuccess());
    EXPECT_EQ(user, "nul");
    ASSERT_TRUE(store.get("a", user, password).isSuccess());
    EXPECT_EQ(user, "plain");
}

// --- Credentials bound to a host ---

TEST(ProvisioningCredentialsTest, boundCredentialGoesOnlyToItsHost) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "devuser", "devpass", "Prov.Example").isSuccess());
    String user = "kept";
    String password = "kept";
    ASSERT_TRUE(store.getForHost("dev", "prov.example", user, password).isSuccess());
    EXPECT_EQ(user, "devuser");
    EXPECT_EQ(password, "devpass");
    user = password = "kept";
    XCode other = store.getForHost("dev", "other.example", user, password);
    EXPECT_EQ(other.getString(), "Neither credentials for realm 'dev' nor wild-card realm found.");
    EXPECT_EQ(user, "kept");
    EXPECT_EQ(password, "kept");
}

// A location writes an IPv6 address in brackets; a configuration may give it with or without.
TEST(ProvisioningCredentialsTest, boundIpv6HostMatchesWithOrWithoutBrackets) {
    ProvisioningCredentials bare;
    ProvisioningCredentials bracketed;
    ASSERT_TRUE(bare.add("dev", "u", "p", "::1").isSuccess());
    ASSERT_TRUE(bracketed.add("dev", "u", "p", "[FE80::1]").isSuccess());
    String user;
    String password;
    EXPECT_TRUE(bare.getForHost("dev", "[::1]", user, password).isSuccess());
    EXPECT_TRUE(bare.getForHost("dev", "::1", user, password).isSuccess());
    EXPECT_TRUE(bracketed.getForHost("dev", "[fe80::1]", user, password).isSuccess());
    EXPECT_TRUE(bracketed.getForHost("dev", "fe80::1", user, password).isSuccess());
    EXPECT_TRUE(bare.getForHost("dev", "[::2]", user, password).isErr());
    EXPECT_TRUE(bare.getForHost("dev", "[::1", user, password).isErr());
}

TEST(ProvisioningCredentialsTest, wildCardAnswersForAHostARealmIsNotBoundTo) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "devuser", "devpass", "10.0.0.1").isSuccess());
    ASSERT_TRUE(store.add("", "anyuser", "anypass").isSuccess());
    String user;
    String password;
    ASSERT_TRUE(store.getForHost("dev", "10.0.0.2", user, password).isSuccess());
    EXPECT_EQ(user, "anyuser");
    ASSERT_TRUE(store.getForHost("dev", "10.0.0.1", user, password).isSuccess());
    EXPECT_EQ(user, "devuser");
}

TEST(ProvisioningCredentialsTest, formsWithoutAHostNeverGiveOutABoundCredential) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "devuser", "devpass", "10.0.0.1").isSuccess());
    ASSERT_TRUE(store.add("", "anyuser", "anypass", "10.0.0.1").isSuccess());
    String user = "kept";
    String password = "kept";
    EXPECT_TRUE(store.get("dev", user, password).isErr());
    EXPECT_TRUE(store.get(user, password).isErr());
    EXPECT_EQ(user, "kept");
    // Unbound entries answer every host, as before.
    ASSERT_TRUE(store.add("lab", "labuser", "labpass").isSuccess());
    ASSERT_TRUE(store.getForHost("lab", "anything", user, password).isSuccess());
    EXPECT_EQ(user, "labuser");
}

TEST(ProvisioningCredentialsTest, copiesKeepTheBinding) {
    ProvisioningCredentials store;
    ASSERT_TRUE(store.add("dev", "devuser", "devpass", "10.0.0.1").isSuccess());
    ProvisioningCredentials copy(store);
    String user;
    String password;
    EXPECT_TRUE(copy.getForHost("dev", "10.0.0.2", user, password).isErr());
    EXPECT_TRUE(copy.getForHost("dev", "10.0.0.1", user, password).isSuccess());
}

}  // namespace
