// SPDX-License-Identifier: Apache-2.0
//
// Has the host platform keep the tunnel's configuration, or a part of it, for as long as the object lives, although
// something else is requested, or its removal. For requests that come before those which replace it. What an ended
// process left stays stale. Other platforms do not know it.
#ifndef VPNOALCTL_KEPTTUNNEL_H
#define VPNOALCTL_KEPTTUNNEL_H

namespace vpnoalctl {

class KeptTunnel {
public:
    enum class Part { All, GuardAndFilter, Guard };

    /// Throws CommandError when there is no memory: without it the tunnel would be open for a moment.
    explicit KeptTunnel(Part part = Part::All);
    KeptTunnel(const KeptTunnel&) = delete;
    KeptTunnel& operator=(const KeptTunnel&) = delete;
    ~KeptTunnel();
};

}  // namespace vpnoalctl

#endif
