// The library's own tests, run on ZooKeeper: every test skips when no test
// ensemble is given.
#include "testkit.h"

namespace {

class NeedsEnsemble : public ::testing::Environment {
public:
  void SetUp() override { ZK_REQUIRED(); }
};

const auto *const kEnv = ::testing::AddGlobalTestEnvironment(new NeedsEnsemble);

} // namespace
