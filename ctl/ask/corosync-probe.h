/* Whether corosync runs on this node. */
#pragma once

namespace ctl {

bool corosync_is_there();

} // namespace ctl
