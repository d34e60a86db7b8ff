// Calls and objects between the two ends of a socket.
#include <android/binder_parcel_utils.h>
#include <sys/wait.h>

#include <numeric>

#include "platform/linux/limits.h"
#include "tests/platform/binder_fixture.h"

namespace kvox::binder {
namespace {

using TransportTest = BinderTest;
using Data = std::vector<uint8_t>;

Data Pattern(size_t size) {
  Data data(size);
  std::iota(data.begin(), data.end(), uint8_t{7});
  return data;
}

TEST_F(TransportTest, BytesOfAnySizeComeBackButTooMany) {
  Serve(1);
  const auto client = Client();
  ASSERT_TRUE(client->isRemote());
  Data answer;
  EXPECT_EQ(client->Echo(Pattern(kMaxParcelSize), &answer).getStatus(), STATUS_FAILED_TRANSACTION);
  // The token makes a request larger than its reply: the last one just fits, both ways.
  for (const size_t size : {0ul, 1ul, 5ul, 4096ul, 100'000ul, kMaxParcelSize - 64ul}) {
    EXPECT_EQ(Echo(*client, Pattern(size)), Pattern(size)) << size;
  }
}

TEST_F(TransportTest, ThreadsShareAConnection) {
  Serve(2);
  const auto shared = Client();
  std::vector<std::thread> threads;
  for (uint8_t id = 0; id < 7; ++id) {
    threads.emplace_back([&, id] {
      const auto own = Client();
      for (size_t i = 0; i < 200; ++i) {
        const Data data(1 + i * 37 % 9000, id);
        ASSERT_EQ(Echo(i % 2 == 0 ? *shared : *own, data), data);
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST_F(TransportTest, AnObjectHasOneAddressAndComesHomeAsItself) {
  Serve(1);
  const auto client = Client();
  const auto own = ndk::SharedRefBase::make<EchoService>();
  std::shared_ptr<IEcho> before;
  ASSERT_TRUE(client->Swap(own, &before).isOk());
  EXPECT_EQ(before, nullptr);
  const auto held = service_->held();
  ASSERT_NE(held, nullptr);
  EXPECT_TRUE(held->isRemote());

  ASSERT_TRUE(client->Swap(own, &before).isOk());
  EXPECT_EQ(before, own) << "the original, not a proxy";
  EXPECT_EQ(service_->held()->asBinder(), held->asBinder()) << "given twice, one proxy";

  ASSERT_TRUE(client->Swap(client, &before).isOk());
  EXPECT_EQ(service_->held(), service_) << "also in the other direction";
  ASSERT_TRUE(client->Swap(nullptr, &before).isOk());
  EXPECT_EQ(before->asBinder(), client->asBinder());
}

TEST_F(TransportTest, ReferencesThatCrossAreFreedNeitherEarlyNorNever) {
  Serve(2);
  const auto client = Client();
  const int destroyed = EchoService::destroyed;
  auto own = ndk::SharedRefBase::make<EchoService>();
  std::vector<std::thread> threads;
  for (int id = 0; id < 4; ++id) {
    threads.emplace_back([&] {
      for (int i = 0; i < 300; ++i) {
        std::shared_ptr<IEcho> before;
        ASSERT_TRUE(client->Swap(i % 2 == 0 ? own : nullptr, &before).isOk());
        ASSERT_TRUE(before == nullptr || before == own);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::shared_ptr<IEcho> before;
  ASSERT_TRUE(client->Swap(own, &before).isOk());
  before = nullptr;
  own = nullptr;
  EXPECT_EQ(EchoService::destroyed, destroyed) << "the service holds it";
  ASSERT_TRUE(client->Swap(nullptr, &before).isOk());
  before = nullptr;
  EXPECT_TRUE(WaitFor([&] { return EchoService::destroyed == destroyed + 1; }));
}

TEST_F(TransportTest, CallsNest) {
  Serve(4);
  const auto client = Client();
  const auto own = ndk::SharedRefBase::make<EchoService>();
  std::shared_ptr<IEcho> before;
  ASSERT_TRUE(client->Swap(own, &before).isOk());
  ASSERT_TRUE(own->Swap(client, &before).isOk());
  own->asks_held = true;
  service_->asks_held = true;
  EXPECT_EQ(Echo(*client, {1, 2, 3}), (Data{1, 2, 3})) << "there, back, and there again";
}

TEST_F(TransportTest, TheLibraryAnswersForEveryObject) {
  Serve(1);
  const auto client = Client();
  AIBinder* binder = client->asBinder().get();
  EXPECT_EQ(AIBinder_ping(binder), STATUS_OK);
  EXPECT_EQ(AIBinder_dump(binder, 1, nullptr, 0), STATUS_FDS_NOT_ALLOWED);
  EXPECT_EQ(AIBinder_getUserData(binder), nullptr);
  const auto transact = [&](AIBinder* to, transaction_code_t code, binder_flags_t flags) {
    AParcel* in = nullptr;
    AParcel* out = nullptr;
    EXPECT_EQ(AIBinder_prepareTransaction(binder, &in), STATUS_OK);
    const binder_status_t status = AIBinder_transact(to, code, &in, &out, flags);
    EXPECT_EQ(in, nullptr);
    AParcel_delete(out);
    return status;
  };
  EXPECT_EQ(transact(binder, 77, 0), STATUS_UNKNOWN_TRANSACTION);
  EXPECT_EQ(transact(binder, 0, 0), STATUS_UNKNOWN_TRANSACTION);
  EXPECT_EQ(transact(binder, LAST_CALL_TRANSACTION + 1, 0), STATUS_UNKNOWN_TRANSACTION);
  EXPECT_EQ(transact(binder, IEcho::TRANSACTION_Echo, 0x80), STATUS_BAD_VALUE);
  EXPECT_EQ(transact(service_->asBinder().get(), IEcho::TRANSACTION_Echo, 0), STATUS_BAD_VALUE);
  EXPECT_EQ(transact(binder, IEcho::TRANSACTION_Echo, 0), STATUS_NOT_ENOUGH_DATA);
}

TEST_F(TransportTest, AnObjectOfAThirdProcessIsNotPassedOn) {
  Serve(1);
  const auto first = Client();
  const auto second = Client();
  std::shared_ptr<IEcho> before;
  EXPECT_EQ(first->Swap(second, &before).getStatus(), STATUS_INVALID_OPERATION);
  EXPECT_EQ(AIBinder_ping(first->asBinder().get()), STATUS_OK);
}

TEST_F(TransportTest, OneWayCallsKeepTheirOrderAndHoldNobodyUp) {
  Serve(2);
  const auto busy = Client();
  const auto other = Client();
  service_->gate.Close();
  std::vector<int32_t> sent(3000);
  std::iota(sent.begin(), sent.end(), 0);
  for (const int32_t number : sent) ASSERT_TRUE(busy->Note(number).isOk());
  ASSERT_TRUE(WaitFor([&] { return service_->gate.waiting() == 1; }));
  // One thread is stuck in the first note; the other one serves.
  EXPECT_EQ(AIBinder_ping(other->asBinder().get()), STATUS_OK);
  service_->gate.Open();
  EXPECT_TRUE(WaitFor([&] { return service_->notes().size() == sent.size(); }));
  EXPECT_EQ(service_->notes(), sent);
}

TEST_F(TransportTest, TheCallerIsTheProcessAtTheOtherEnd) {
  const pid_t child = fork();  // before there are threads
  if (child == 0) {
    const auto client = IEcho::fromBinder(ndk::SpAIBinder(AServiceManager_waitForService(kName)));
    _exit(client != nullptr && Echo(*client, {7}) == Data{7} ? 0 : 1);
  }
  Serve(1);
  int exit_status = 0;
  ASSERT_EQ(waitpid(child, &exit_status, 0), child);
  EXPECT_EQ(exit_status, 0);
  EXPECT_EQ(service_->caller_pid, child);
  EXPECT_EQ(service_->caller_uid, getuid());
  EXPECT_EQ(AIBinder_getCallingPid(), getpid()) << "outside a call";
}

// Objects of this process, without a socket.

TEST_F(TransportTest, AStubMakesANewObjectOnceTheOldOneIsGone) {
  const auto local = ndk::SharedRefBase::make<EchoService>();
  ndk::ScopedAIBinder_Weak weak;
  {
    const auto binder = local->asBinder();
    EXPECT_EQ(binder, local->asBinder());
    weak.set(AIBinder_Weak_new(binder.get()));
    const ndk::SpAIBinder promoted(AIBinder_Weak_promote(weak.get()));
    EXPECT_EQ(promoted, binder);
  }
  EXPECT_EQ(AIBinder_Weak_promote(weak.get()), nullptr);
  EXPECT_NE(local->asBinder().get(), nullptr);
}

/// The daemon's share of a client's threads is all that the client has.
TEST_F(TransportTest, AsManyCallbacksRunAsTheClientHasThreads) {
  constexpr int kThreads = kMaxCallsOfProcess + 2;
  Serve(kThreads);
  const auto callback = ndk::SharedRefBase::make<EchoService>();
  std::shared_ptr<IEcho> none;
  const auto client = Client();
  ASSERT_TRUE(client->Swap(callback, &none).isOk());
  callback->gate.Close();
  std::vector<std::thread> calls;
  for (int i = 0; i < kThreads; ++i) {
    calls.emplace_back([&] { EXPECT_EQ(Echo(*service_->held(), {1}), std::vector<uint8_t>{1}); });
  }
  EXPECT_TRUE(WaitFor([&] { return callback->gate.waiting() == kThreads; }));
  callback->gate.Open();
  for (std::thread& call : calls) call.join();
}

}  // namespace
}  // namespace kvox::binder
