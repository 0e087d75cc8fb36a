#include "entity_support.h"

#include <vector>

namespace signature_verifier::client::testing {

Fixtures& EntityTest::Shared()
{
    static Fixtures fixtures;
    return fixtures;
}

void EntityTest::StartEntity(const std::string& roots)
{
    entity = std::make_unique<host::testing::EntityProcess>(
        std::vector<std::string>{"--roots", Shared().pki.File(roots).string(), "--allow-trust-changes"},
        Shared().dir.Path() / "entity.log");
    entity->WaitServing();
}

void EntityTest::TearDown()
{
    if (entity) {
        EXPECT_EQ(entity->Stop(), 0) << entity->Log();
    }
    ClientTest::TearDown();
}

}  // namespace signature_verifier::client::testing
