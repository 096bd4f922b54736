// SPDX-License-Identifier: Apache-2.0
//
// The agent in the background: this program again, in a session of its own, until it says that the tunnel is ready.
#ifndef VPNOALWG_BACKGROUND_H
#define VPNOALWG_BACKGROUND_H

#include <string>
#include <vector>

namespace vpnoalwg {

/// Starts this program with these arguments and waits until it reports to be ready, or ends. What it prints goes to the
/// file `log`, and what it has printed until then to standard error. Returns 0 when it is ready, else its exit status,
/// which is ExitFailed when it was interrupted. Throws CommandError.
int startInBackground(std::vector<std::string> arguments, const std::string& log);

}  // namespace vpnoalwg

#endif
