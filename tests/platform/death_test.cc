// Death notices: who gets them, and when.
#include <signal.h>
#include <sys/wait.h>

#include "tests/platform/binder_fixture.h"

namespace kvox::binder {
namespace {

/// What one link reports, in order.
class Reports : public SharedText {
 public:
  explicit Reports(ndk::ScopedAIBinder_DeathRecipient* recipient) {
    recipient->set(AIBinder_DeathRecipient_new(
        [](void* cookie) { static_cast<Reports*>(cookie)->Add("died "); }));
    AIBinder_DeathRecipient_setOnUnlinked(
        recipient->get(), [](void* cookie) { static_cast<Reports*>(cookie)->Add("unlinked "); });
  }
};

/// A binder, and what a link to its death reports.
class LinkTest : public BinderTest {
 protected:
  binder_status_t Link() {
    return AIBinder_linkToDeath(binder_.get(), recipient_.get(), &reports_);
  }

  ndk::SpAIBinder binder_;
  ndk::ScopedAIBinder_DeathRecipient recipient_;
  Reports reports_{&recipient_};
};

class DeathTest : public LinkTest {
 protected:
  /// A service whose clients survive when its connections break.
  void SetUp() override {
    BinderTest::SetUp();
    Serve(2);
    client_ = Client();
    binder_ = client_->asBinder();
  }
  /// Breaks all connections, as when the service's process ends.
  void EndService() {
    kvox_host::StopBinder();
    ABinderProcess_startThreadPool();
  }

  std::shared_ptr<IEcho> client_;
};

TEST_F(DeathTest, EachLinkReportsDiedThenUnlinked) {
  ASSERT_EQ(Link(), STATUS_OK);
  ASSERT_EQ(Link(), STATUS_OK) << "one recipient may be linked twice";
  EXPECT_TRUE(AIBinder_isAlive(binder_.get()));
  EndService();
  EXPECT_TRUE(WaitFor([&] { return reports_.text() == "died unlinked died unlinked "; }));
  EXPECT_FALSE(AIBinder_isAlive(binder_.get()));
  EXPECT_EQ(AIBinder_ping(binder_.get()), STATUS_DEAD_OBJECT);
  EXPECT_EQ(client_->Note(1).getStatus(), STATUS_DEAD_OBJECT);
  EXPECT_EQ(AIBinder_unlinkToDeath(binder_.get(), recipient_.get(), &reports_), STATUS_DEAD_OBJECT);
}

TEST_F(DeathTest, LinksThatEndOtherwiseAreOnlyUnlinked) {
  ASSERT_EQ(Link(), STATUS_OK);
  EXPECT_EQ(AIBinder_unlinkToDeath(binder_.get(), recipient_.get(), this), STATUS_NAME_NOT_FOUND);
  EXPECT_EQ(AIBinder_unlinkToDeath(binder_.get(), recipient_.get(), &reports_), STATUS_OK);
  EXPECT_EQ(reports_.text(), "unlinked ");

  ASSERT_EQ(Link(), STATUS_OK);
  recipient_.set(nullptr);
  EXPECT_EQ(reports_.text(), "unlinked unlinked ");

  Reports last(&recipient_);
  ASSERT_EQ(AIBinder_linkToDeath(binder_.get(), recipient_.get(), &last), STATUS_OK);
  client_ = nullptr;
  binder_ = nullptr;
  EXPECT_EQ(last.text(), "unlinked ");
  EndService();
  EXPECT_EQ(last.text(), "unlinked ");
  EXPECT_EQ(reports_.text(), "unlinked unlinked ");
}

/// A client in its own process that gives an object to the service and waits to be killed. Forked
/// before this process has threads.
class ClientDeathTest : public LinkTest {
 protected:
  void SetUp() override {
    BinderTest::SetUp();
    child_ = fork();
    if (child_ == 0) {
      ABinderProcess_startThreadPool();
      const auto own = ndk::SharedRefBase::make<EchoService>();
      own->gate.Close();  // never replies
      const auto client = IEcho::fromBinder(ndk::SpAIBinder(AServiceManager_waitForService(kName)));
      std::shared_ptr<IEcho> before;
      if (!client->Swap(own, &before).isOk()) _exit(1);
      while (true) pause();
    }
    Serve(2);
    ASSERT_TRUE(WaitFor([&] { return service_->held() != nullptr; }));
    binder_ = service_->held()->asBinder();
    ASSERT_EQ(Link(), STATUS_OK);
  }
  void Kill() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    child_ = -1;
  }
  void TearDown() override {
    if (child_ > 0) Kill();
    binder_ = nullptr;
    BinderTest::TearDown();
  }

  pid_t child_ = -1;
};

TEST_F(ClientDeathTest, EndsTheCallInProgress) {
  std::thread killer([&] { Kill(); });
  std::vector<uint8_t> answer;
  EXPECT_EQ(service_->held()->Echo({1}, &answer).getStatus(), STATUS_DEAD_OBJECT);
  killer.join();
}

TEST_F(ClientDeathTest, IsReportedAsSoonAsABusyThreadIsFree) {
  const auto client = Client();
  service_->gate.Close();
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&] { Echo(*client, {1}); });
  }
  ASSERT_TRUE(WaitFor([&] { return service_->gate.waiting() == 2; }));
  Kill();
  ASSERT_TRUE(WaitFor([&] { return !AIBinder_isAlive(binder_.get()); }));
  EXPECT_EQ(reports_.text(), "") << "no thread is free";
  service_->gate.Open();
  EXPECT_TRUE(WaitFor([&] { return reports_.text() == "died unlinked "; }));
  for (auto& caller : callers) caller.join();
}

}  // namespace
}  // namespace kvox::binder
