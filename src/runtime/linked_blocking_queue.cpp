#include "runtime/linked_blocking_queue.h"

#include <cstdlib>

#include "runtime/memory.h"

namespace vq_tl {

namespace {

constexpr int32_t kWaitForever = -1;

// Waits on the condition as the timeout says: -1 without limit, 0 not at
// all, above 0 at most that many milliseconds per call. Returns whether the
// caller may look again.
bool waitFor(Condition* condition, int32_t timeout) {
    if (timeout == 0) return false;
    return (timeout < 0 ? Condition_await(condition) : Condition_awaitMillis(condition, timeout)) == TL_OK;
}

LinkedBlockingQueueNode* takeNode(LinkedBlockingQueue* self) {
    int32_t old = self->cursor.load();
    int32_t next;
    do {
        next = old > self->capacity ? 0 : old + 1;
    } while (!self->cursor.compare_exchange_weak(old, next));
    return &self->nodes[old];
}

void signalUnder(Lock* lock, Condition* condition) {
    if (Lock_lock(lock) != TL_OK) return;
    Condition_signal(condition);
    Lock_unlock(lock);
}

// The count is read and changed with sequentially consistent operations: a
// taker that sees count >= 1 sees the node and item the putter linked before
// raising it, and a putter that sees count < capacity sees the node that the
// taker released before lowering it.
int32_t insertItem(LinkedBlockingQueue* self, void* item, int32_t timeout) {
    if (self == nullptr || item == nullptr || self->nodes == nullptr) return 0;
    if (Lock_lock(&self->putLock) != TL_OK) return 0;
    while (self->count.load() >= self->capacity) {
        // A timed wait that expires just as room appears takes the room
        // rather than dropping a wake-up that was meant for it.
        if (!waitFor(&self->notFull, timeout) && self->count.load() >= self->capacity) {
            Lock_unlock(&self->putLock);
            return 0;
        }
    }
    LinkedBlockingQueueNode* node = takeNode(self);
    node->item = item;
    node->next = nullptr;
    self->tail->next = node;
    self->tail = node;
    const int32_t c = self->count.fetch_add(1);
    if (c + 1 < self->capacity) Condition_signal(&self->notFull);
    Lock_unlock(&self->putLock);
    if (c == 0) signalUnder(&self->takeLock, &self->notEmpty);
    return 1;
}

void* removeItem(LinkedBlockingQueue* self, int32_t timeout) {
    if (self == nullptr || self->nodes == nullptr) return nullptr;
    if (Lock_lock(&self->takeLock) != TL_OK) return nullptr;
    while (self->count.load() < 1) {
        if (!waitFor(&self->notEmpty, timeout) && self->count.load() < 1) {
            Lock_unlock(&self->takeLock);
            return nullptr;
        }
    }
    LinkedBlockingQueueNode* first = self->head->next;
    void* item = first->item;
    first->item = nullptr;
    self->head = first;
    const int32_t c = self->count.fetch_sub(1);
    if (c >= 2) Condition_signal(&self->notEmpty);
    Lock_unlock(&self->takeLock);
    if (c == self->capacity) signalUnder(&self->putLock, &self->notFull);
    return item;
}

TLResult constructMembers(LinkedBlockingQueue* self, Env* env) {
    self->env = env;
    self->capacity = 0;
    self->nodes = nullptr;
    self->head = nullptr;
    self->tail = nullptr;
    self->count.store(0);
    self->cursor.store(0);
    return construct_Lock(&self->putLock, env) | construct_Lock(&self->takeLock, env) |
           construct_Condition(&self->notFull, env) | construct_Condition(&self->notEmpty, env);
}

// Releases everything init took; the queue must be empty or unused.
TLResult release(LinkedBlockingQueue* self, Env* env) {
    const TLResult r = destruct_Condition(&self->notFull) | destruct_Condition(&self->notEmpty) |
                       destruct_Lock(&self->putLock) | destruct_Lock(&self->takeLock);
    Memory_free(self->nodes);
    return r | constructMembers(self, env);
}

}  // namespace

int32_t LinkedBlockingQueue_getBufferSize(int32_t capacity) {
    if (capacity < 1) return -1;
    const int64_t size =
        8 * static_cast<int64_t>(capacity) + 16 +
        2 * static_cast<int64_t>(Lock_getBufferSize(LOCK_KIND_RECURSIVE_MUTEX) + Condition_getBufferSize());
    return size > INT32_MAX ? -1 : static_cast<int32_t>(size);
}

TLResult construct_LinkedBlockingQueue(LinkedBlockingQueue* self, Env* env) {
    if (self == nullptr) return TL_ERROR_PARAM;
    return constructMembers(self, env);
}

TLResult destruct_LinkedBlockingQueue(LinkedBlockingQueue* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (self->head != self->tail) return TL_ERROR_STATE;
    return release(self, nullptr);
}

TLResult LinkedBlockingQueue_recycle(LinkedBlockingQueue* self) {
    if (self == nullptr) return TL_ERROR_PARAM;
    if (self->head != self->tail) return TL_ERROR_STATE;
    return release(self, self->env);
}

TLResult LinkedBlockingQueue_init(LinkedBlockingQueue* self, int32_t capacity) {
    if (self == nullptr || LinkedBlockingQueue_getBufferSize(capacity) < 0) return TL_ERROR_PARAM;
    const TLResult recycled = LinkedBlockingQueue_recycle(self);
    if (recycled != TL_OK) return recycled;
    const size_t nodeCount = static_cast<size_t>(capacity) + 2;
    self->nodes =
        static_cast<LinkedBlockingQueueNode*>(Memory_alloc(nodeCount * sizeof(LinkedBlockingQueueNode)));
    if (self->nodes == nullptr) return TL_ERROR_MEMORY;
    self->capacity = capacity;
    TLResult r = Lock_init(&self->putLock, LOCK_KIND_RECURSIVE_MUTEX);
    if (r == TL_OK) r = Lock_init(&self->takeLock, LOCK_KIND_RECURSIVE_MUTEX);
    if (r == TL_OK) r = Condition_init(&self->notFull, &self->putLock);
    if (r == TL_OK) r = Condition_init(&self->notEmpty, &self->takeLock);
    if (r != TL_OK) {
        release(self, self->env);
        return r;
    }
    LinkedBlockingQueueNode* dummy = takeNode(self);
    dummy->item = nullptr;
    dummy->next = nullptr;
    self->head = dummy;
    self->tail = dummy;
    return TL_OK;
}

int32_t LinkedBlockingQueue_getCapacity(const LinkedBlockingQueue* self) {
    return self == nullptr ? -1 : self->capacity;
}

int32_t LinkedBlockingQueue_size(const LinkedBlockingQueue* self) {
    return self == nullptr ? -1 : self->count.load();
}

int32_t LinkedBlockingQueue_put(LinkedBlockingQueue* self, void* item) {
    return insertItem(self, item, kWaitForever);
}

int32_t LinkedBlockingQueue_offer(LinkedBlockingQueue* self, void* item) { return insertItem(self, item, 0); }

int32_t LinkedBlockingQueue_offerMillis(LinkedBlockingQueue* self, void* item, int32_t millis) {
    return insertItem(self, item, millis < 0 ? 0 : millis);
}

void* LinkedBlockingQueue_take(LinkedBlockingQueue* self) { return removeItem(self, kWaitForever); }

void* LinkedBlockingQueue_poll(LinkedBlockingQueue* self) { return removeItem(self, 0); }

void* LinkedBlockingQueue_pollMillis(LinkedBlockingQueue* self, int32_t millis) {
    return removeItem(self, millis < 0 ? 0 : millis);
}

}  // namespace vq_tl
