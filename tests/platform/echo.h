// A small interface that makes the library's calls in the order of the AIDL compiler's code. The
// binder's tests run on it.
//
//   interface IEcho {
//       byte[] Echo(in byte[] data);
//       IEcho Swap(IEcho object);
//       oneway void Note(int number);
//   }
#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_interface_utils.h>
#include <android/binder_parcel_utils.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace aidl::kvoxtest {

class IEcho : public ::ndk::ICInterface {
 public:
  static constexpr char descriptor[] = "kvoxtest.IEcho";
  static constexpr uint32_t TRANSACTION_Echo = FIRST_CALL_TRANSACTION + 0;
  static constexpr uint32_t TRANSACTION_Swap = FIRST_CALL_TRANSACTION + 1;
  static constexpr uint32_t TRANSACTION_Note = FIRST_CALL_TRANSACTION + 2;

  static std::shared_ptr<IEcho> fromBinder(const ::ndk::SpAIBinder& binder);

  virtual ::ndk::ScopedAStatus Echo(const std::vector<uint8_t>& data,
                                    std::vector<uint8_t>* answer) = 0;
  virtual ::ndk::ScopedAStatus Swap(const std::shared_ptr<IEcho>& object,
                                    std::shared_ptr<IEcho>* before) = 0;
  virtual ::ndk::ScopedAStatus Note(int32_t number) = 0;
};

class BnEcho : public ::ndk::BnCInterface<IEcho> {
 protected:
  ::ndk::SpAIBinder createBinder() override;
};

class BpEcho : public ::ndk::BpCInterface<IEcho> {
 public:
  explicit BpEcho(const ::ndk::SpAIBinder& binder) : BpCInterface(binder) {}

  ::ndk::ScopedAStatus Echo(const std::vector<uint8_t>& data,
                            std::vector<uint8_t>* answer) override;
  ::ndk::ScopedAStatus Swap(const std::shared_ptr<IEcho>& object,
                            std::shared_ptr<IEcho>* before) override;
  ::ndk::ScopedAStatus Note(int32_t number) override;
};

}  // namespace aidl::kvoxtest
