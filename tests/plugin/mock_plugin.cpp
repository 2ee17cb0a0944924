// A provider plugin. MOCK_CODE is what its start returns.
#include <qzfi/plugin.h>

namespace {

int32_t free_error(void **) {
    return 0;
}
int32_t free_message(uint64_t *) {
    return 0;
}
const qfi_plugin_ops operations = {nullptr, free_error, nullptr, free_message};

} // namespace

extern "C" {
QZFI_API uint32_t mock_plugin_start(qfi_plugin *plugin);
uint32_t mock_plugin_start(qfi_plugin *plugin) {
    plugin->first = const_cast<qfi_plugin_ops *>(&operations);
    return MOCK_CODE;
}
}
