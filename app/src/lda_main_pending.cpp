// Pending-interface list. Main thread: nodes are appended and removed under the loop lock, and
// looked up without it.
#include <cstdlib>

#include "app_debug.h"
#include "lda_main.h"

lda_list_t backup_node_list;

static lda_intf_t* find_pending(uint32_t ifx) {
    for (lda_intf_t& node : lda_records<lda_intf_t>(&backup_node_list)) {
        if (node.ifx == ifx) {
            return &node;
        }
    }
    return nullptr;
}

void lda_back_node_add(uint32_t ifx) {
    if (find_pending(ifx) != nullptr) {
        APP_INFO("---backup_node_list have been added :ifx=%d\n", ifx);
        return;
    }
    auto* node = static_cast<lda_intf_t*>(calloc(1, sizeof(lda_intf_t)));
    if (node == nullptr) {
        return;
    }
    node->ifx = ifx;
    lda_intf_set_shutdown(node, 1);
    lda_loop_lock();
    lda_list_add_tail(&backup_node_list, &node->link);
    lda_loop_unlock();
    APP_INFO("--- add backup_node_list :ifx=%d\n", ifx);
}

int lda_back_node_lookup(uint32_t ifx) {
    return find_pending(ifx) != nullptr ? 1 : 0;
}

void lda_back_node_del(uint32_t ifx) {
    const lda_loop_guard guard;
    lda_intf_t* node = find_pending(ifx);
    if (node == nullptr) {
        return;
    }
    lda_list_unlink(&node->link);
    free(node);
    APP_INFO("---LDA delete backup_node_list :ifx=%d\n", ifx);
}
