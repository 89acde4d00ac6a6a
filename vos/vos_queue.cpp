#include "vos_queue.h"

#include <cstring>

#include "vos_mem.h"
#include "vos_trace.h"

namespace
{

constexpr char MODULE[] = "vos_queue";
constexpr uintptr_t LAST_BAD_POINTER = 3;
constexpr uint16_t END_OF_INDICES = 0xFFFF;
constexpr uint32_t INDICES_STEP = 3;

VosQueueNode *node_at(const VosQueue *queue, int16_t index)
{
    VosQueueNode *node = queue->head;
    for (int16_t i = 0; i < index && node != nullptr; ++i) {
        node = node->next;
    }
    return node;
}

// Puts a new node in front of next (null: at the end); false when the list takes no more.
bool link_before(VosQueue *queue, VosQueueNode *next, void *data)
{
    VosQueueNode *node = nullptr;
    if (queue->count < VOS_QUEUE_MAX) {
        vos_mem_alloc(&node, sizeof *node);
    }
    if (node == nullptr) {
        return false;
    }
    VosQueueNode *previous = next != nullptr ? next->previous : queue->tail;
    *node = {next, previous, data, 0};
    (previous != nullptr ? previous->next : queue->head) = node;
    (next != nullptr ? next->previous : queue->tail) = node;
    ++queue->count;
    return true;
}

void *unlink_node(VosQueue *queue, VosQueueNode *node)
{
    void *data = node->data;
    (node->previous != nullptr ? node->previous->next : queue->head) = node->next;
    (node->next != nullptr ? node->next->previous : queue->tail) = node->previous;
    --queue->count;
    vos_mem_free(&node);
    return data;
}

void release_data(const VosQueueOps *ops, void **data)
{
    if (*data == nullptr) {
        return;
    }
    if (ops != nullptr && ops->free != nullptr) {
        ops->free(data);
    } else if (reinterpret_cast<uintptr_t>(*data) > LAST_BAD_POINTER) {
        vos_mem_free(data);
    } else {
        vos_trace_error(MODULE, __LINE__, "BAD POINTER");
    }
}

// First node from which on the comparison with the key gives the wanted result; *index is moved
// along.
VosQueueNode *next_match(const VosQueue *queue, VosQueueNode *node, const void *key, int wanted,
                         int16_t *index)
{
    while (node != nullptr && vos_queue_compare(queue->ops, key, node->data) != wanted) {
        node = node->next;
        ++*index;
    }
    return node;
}

} // namespace

VosQueue *vos_queue_create(uint16_t flags, const VosQueueOps *ops)
{
    VosQueue *queue = nullptr;
    vos_mem_alloc(&queue, sizeof *queue);
    if (queue != nullptr) {
        *queue = {nullptr, nullptr, flags, ops, 0};
    }
    return queue;
}

void vos_queue_destroy(VosQueue **queue)
{
    if (queue != nullptr && *queue != nullptr) {
        vos_queue_clear(*queue);
        vos_mem_free(queue);
    }
}

int16_t vos_queue_count(const VosQueue *queue)
{
    return queue->count;
}

int16_t vos_queue_append(VosQueue *queue, void *data)
{
    if ((queue->flags & VOS_QUEUE_UNIQUE) != 0) {
        const int16_t found = vos_queue_index_of(queue, data);
        if (found >= 0) {
            return found;
        }
    }
    return link_before(queue, nullptr, data) ? static_cast<int16_t>(queue->count - 1) : -1;
}

int16_t vos_queue_insert(VosQueue *queue, void *data, int16_t index)
{
    const int16_t place = index < 0 ? int16_t{0} : index;
    const bool beyond = place > queue->count;
    if (!link_before(queue, node_at(queue, place), data)) {
        return -2;
    }
    return beyond ? int16_t{-1} : place;
}

void *vos_queue_take(VosQueue *queue, int16_t index)
{
    VosQueueNode *node = node_at(queue, index);
    return node != nullptr ? unlink_node(queue, node) : nullptr;
}

void *vos_queue_get(const VosQueue *queue, int16_t index)
{
    const VosQueueNode *node = node_at(queue, index);
    return node != nullptr ? node->data : nullptr;
}

int16_t vos_queue_delete(VosQueue *queue, int16_t index)
{
    VosQueueNode *node = node_at(queue, index);
    if (node == nullptr) {
        return -1;
    }
    release_data(queue->ops, &node->data);
    unlink_node(queue, node);
    return queue->count;
}

void vos_queue_clear(VosQueue *queue)
{
    while (queue->count != 0) {
        vos_queue_delete(queue, 0);
    }
}

int vos_queue_compare(const VosQueueOps *ops, const void *key, const void *data)
{
    if (ops != nullptr && ops->compare != nullptr) {
        return ops->compare(key, data);
    }
    return strcmp(static_cast<const char *>(key), static_cast<const char *>(data));
}

int16_t vos_queue_index_of(const VosQueue *queue, const void *key)
{
    int16_t index = 0;
    return next_match(queue, queue->head, key, 1, &index) != nullptr ? index : -1;
}

void *vos_queue_find(const VosQueue *queue, const void *key)
{
    int16_t index = 0;
    const VosQueueNode *node = next_match(queue, queue->head, key, 1, &index);
    return node != nullptr ? node->data : nullptr;
}

uint16_t *vos_queue_find_all(const VosQueue *queue, const void *key)
{
    uint32_t room = INDICES_STEP;
    uint32_t stored = 0;
    uint16_t *indices = nullptr;
    vos_mem_alloc(&indices, room * sizeof *indices);

    int16_t index = 0;
    VosQueueNode *node = next_match(queue, queue->head, key, 0, &index);
    while (indices != nullptr && node != nullptr) {
        indices[stored++] = static_cast<uint16_t>(index);
        if (stored == room) {
            uint16_t *wider = nullptr;
            vos_mem_alloc(&wider, (room + INDICES_STEP) * sizeof *wider);
            if (wider != nullptr) {
                memcpy(wider, indices, stored * sizeof *wider);
            }
            vos_mem_free(&indices);
            indices = wider;
            room += INDICES_STEP;
        }
        ++index;
        node = next_match(queue, node->next, key, 0, &index);
    }
    if (indices != nullptr) {
        indices[stored] = END_OF_INDICES;
    }
    return indices;
}

void vos_queue_unmark_all(VosQueue *queue, const void *key)
{
    for (VosQueueNode *node = queue->head; node != nullptr; node = node->next) {
        if (vos_queue_compare(queue->ops, key, node->data) == 0) {
            node->mark = 0;
        }
    }
}

int16_t vos_queue_take_mark(VosQueue *queue, const void *key)
{
    int16_t index = 0;
    for (VosQueueNode *node = queue->head; node != nullptr; node = node->next, ++index) {
        if (node->mark == 0 && vos_queue_compare(queue->ops, key, node->data) == 0) {
            node->mark = 1;
            return index;
        }
    }
    return -1;
}

int16_t vos_queue_index_of_data(const VosQueue *queue, const void *data)
{
    int16_t index = 0;
    for (const VosQueueNode *node = queue->head; node != nullptr; node = node->next, ++index) {
        if (node->data == data) {
            return index;
        }
    }
    return -1;
}
