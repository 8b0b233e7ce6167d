// Actions that this build does not provide yet: they answer like an unknown word.
// Each stub goes away when its action lands.
#include "front/kiv_actions.hpp"
#include "front/kiv_log.hpp"

static int not_built() {
    kiv_log(LOG_ERR, "Unknown action\n");
    return 1;
}

int kiv_install(kiv_options *) {
    return not_built();
}
