// The generic list under sections, pairs and section lists. Lists are short (164 pairs as a rule),
// so there is no tail pointer and no index.
#include "common/cmn.h"

#include <cstdlib>

cmn_list *cmn_list_create()
{
    return static_cast<cmn_list *>(calloc(1, sizeof(cmn_list)));
}

int cmn_list_append(cmn_list *list, void *data)
{
    if (!list)
        return -EINVAL;
    auto *node = static_cast<cmn_list_node *>(calloc(1, sizeof(cmn_list_node)));
    if (!node)
        return -ENOMEM;
    node->data = data;

    cmn_list_node **end = &list->head;
    while (*end)
        end = &(*end)->next;
    *end = node;
    return 0;
}

int cmn_list_foreach(const cmn_list *list, cmn_list_walk *function, void *argument)
{
    if (!list || !function)
        return -EINVAL;
    for (const cmn_list_node *node = list->head; node; node = node->next) {
        if (function(node->data, argument) != 0)
            return -EFAULT;
    }
    return 0;
}

void *cmn_list_find(const cmn_list *list, cmn_list_compare *function, const void *key)
{
    if (!list || !function || !key)
        return nullptr;
    for (const cmn_list_node *node = list->head; node; node = node->next) {
        if (function(node->data, key) == 0)
            return node->data;
    }
    return nullptr;
}

void cmn_list_destroy(cmn_list *list, cmn_list_release *function)
{
    if (!list || !function)
        return;
    for (cmn_list_node *node = list->head; node;) {
        cmn_list_node *next = node->next;
        if (node->data)
            function(node->data);
        free(node);
        node = next;
    }
    free(list);
}
