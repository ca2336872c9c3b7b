// SPDX-License-Identifier: Apache-2.0
// Writes to a descriptor that somebody else has handed in, and may have done so with bad intent.
#pragma once

#include <string>

namespace vendor { namespace zaltho { namespace hardware { namespace activity_recognition {
namespace V1_1 { namespace implementation {

// Writes as much as the other end takes within two seconds; what is left then, or after an error,
// is lost. fd: a pipe, a socket or a file; nothing goes to what is neither, since a write there
// could wait for ever. Its flags are left alone, as others share them. No signal comes of it. At
// most two calls wait for their readers at a time, so that not all threads of a pool can be made
// to.
void WriteToHandle(int fd, const std::string& text);

}}}}}}  // namespace vendor::zaltho::hardware::activity_recognition::V1_1::implementation
