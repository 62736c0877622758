// Hands the library's updates to whoever the host installed for them.
#include "platform/dsr.h"
#include "platform_default/platform_default.h"

namespace {

dsr_sender_fn installed_sender;
void *installed_context;

} // namespace

void dsr_set_sender(dsr_sender_fn sender, void *ctx) {
    installed_sender = sender;
    installed_context = ctx;
}

int dsr_dsc_send_update(uint32_t operation, const char *service_name, uint32_t service_id,
                        const char *instance, uint32_t scope, uint32_t pid, uint32_t version,
                        const void *ep_bytes, uint32_t ep_len, const void *attr_bytes,
                        uint32_t attr_len, uint32_t) {
    if (installed_sender == nullptr) return -1;
    const dsr_update_t update = {operation, service_name, service_id, instance,   scope,   pid,
                                 version,   ep_bytes,     ep_len,     attr_bytes, attr_len};
    return installed_sender(installed_context, &update);
}
