// The error language of the ground floor, under its short names here.
#pragma once

#include "base/Result.h"

namespace zel {
namespace cgroup {

using base::ErrnoError;
using base::Error;
using base::ErrorKind;
using base::MakeError;
using base::Result;
using base::Status;

}  // namespace cgroup
}  // namespace zel
