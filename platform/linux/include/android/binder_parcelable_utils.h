// Each parcelable states who may receive it.
#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_parcel.h>
#include <android/binder_parcel_utils.h>

namespace ndk {

typedef int32_t parcelable_stability_t;
enum {
  STABILITY_LOCAL = 0,
  STABILITY_VINTF = 1,
};

}  // namespace ndk
