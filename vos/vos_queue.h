// VosQueue: a doubly linked list of pointers, with lookups by key and marks.
//
// Indices count from 0 at the head; -1 means none. A list holds at most VOS_QUEUE_MAX elements.
// The list owns its data from append or insert until take. It has no lock: whoever owns the list
// guards it. No call blocks, but for the trace line of vos_queue_delete, vos_queue_clear and
// vos_queue_destroy, which waits for the reader of standard output.

#ifndef VOS_QUEUE_H
#define VOS_QUEUE_H

#include <cstdint>

constexpr int VOS_QUEUE_MAX = INT16_MAX;
constexpr uint16_t VOS_QUEUE_UNIQUE = 1; // flag: append refuses data that is found as a key

struct VosQueueOps {
    int (*compare)(const void *key, const void *data); // null: strcmp
    // Releases an element's data; null: default. It must not touch the list, not even by a look:
    // the element is still in it.
    void (*free)(void **data);
};

struct VosQueueNode {
    VosQueueNode *next;
    VosQueueNode *previous;
    void *data;
    uint8_t mark;
};

struct VosQueue {
    VosQueueNode *head;
    VosQueueNode *tail;
    uint16_t flags;
    const VosQueueOps *ops; // may be null
    int16_t count;
};

// An empty list, or null without memory. ops may be null and must outlive the list.
VosQueue *vos_queue_create(uint16_t flags, const VosQueueOps *ops);

// Deletes every element, frees the list and sets *queue to null; nothing for a null list.
void vos_queue_destroy(VosQueue **queue);

int16_t vos_queue_count(const VosQueue *queue);

// Index of the new last element. In a unique list, data that vos_queue_index_of finds as a key
// is not added and stays the caller's; the result is the index found. -1 when the list is full or
// memory is out: the data stays the caller's.
int16_t vos_queue_append(VosQueue *queue, void *data);

// Puts the data before the element at index (negative: the first), or at the end when index is
// the count or more. The index of the new element, or -1 when index was greater than the count;
// the data is in the list all the same. -2 when the list is full or memory is out: the data stays
// the caller's.
int16_t vos_queue_insert(VosQueue *queue, void *data, int16_t index);

// Removes the element at index (negative: the first) and returns its data, which is the caller's
// from then on; null when there is no such element.
void *vos_queue_take(VosQueue *queue, int16_t index);

// The data at index (negative: the first), still the list's; null when there is no such element.
void *vos_queue_get(const VosQueue *queue, int16_t index);

// Removes the element at index (negative: the first) and releases its data: by the free function
// of ops, else by vos_mem_free. Data values 1, 2 and 3 are no blocks: they are not freed and
// reported as "BAD POINTER". The new count, or -1 when there is no such element.
int16_t vos_queue_delete(VosQueue *queue, int16_t index);

void vos_queue_clear(VosQueue *queue); // deletes every element

// What ops' compare says of (key, data); strcmp without one.
int vos_queue_compare(const VosQueueOps *ops, const void *key, const void *data);

// First element whose comparison with the key gives 1: its index (-1: none), its data (null: none).
int16_t vos_queue_index_of(const VosQueue *queue, const void *key);
void *vos_queue_find(const VosQueue *queue, const void *key);

// A new array of the indices of every element whose comparison with the key gives 0, ascending,
// ended by 0xFFFF; the caller frees it with vos_mem_free. Null without memory.
uint16_t *vos_queue_find_all(const VosQueue *queue, const void *key);

// Sets the mark of every element whose comparison with the key gives 0 back to 0.
void vos_queue_unmark_all(VosQueue *queue, const void *key);

// Marks the first element without a mark whose comparison with the key gives 0: its index, or -1.
int16_t vos_queue_take_mark(VosQueue *queue, const void *key);

// Index of the first element whose data is that very pointer; -1 when none.
int16_t vos_queue_index_of_data(const VosQueue *queue, const void *data);

#endif
