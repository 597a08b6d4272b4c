// platform_control_host.cpp - the test control calls on the host platform:
// each is the HOST_ call of the same meaning.
#include "host_platform.h"
#include "platform_control.h"

extern "C" {

int PCTL_OpenStore(const char *root) { return HOST_Open(root); }
int PCTL_SetFipsMode(int on) { return HOST_SetFipsMode(on); }
int PCTL_SetAlgoEnabled(unsigned int code, int enabled) {
    return HOST_SetAlgoEnabled(code, enabled);
}
int PCTL_SetMemAlarm(int state) { return HOST_SetMemAlarm(state); }
int PCTL_SetSelfNode(unsigned short node) { return HOST_SetSelfNode(node); }
int PCTL_SetStandbyNodes(const unsigned short *nodes, unsigned int count) {
    return HOST_SetStandbyNodes(nodes, count);
}
int PCTL_SetNodeStatus(unsigned short node, int status) { return HOST_SetNodeStatus(node, status); }
const char *PCTL_LastError(void) { return HOST_LastError(); }

}  // extern "C"
