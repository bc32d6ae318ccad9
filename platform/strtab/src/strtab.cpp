// strtab.cpp - separate chaining; every node, key copy and the bucket array
// live in the creator's memory. A reader-writer lock lets searches run side
// by side while a change runs alone.
#include "strtab.h"

#include <cstring>
#include <pthread.h>

#define STRTAB_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

struct Node {
  Node *next;
  char *key;
  void *value;
};

} // namespace

struct strtab {
  void *ctx;
  uint32_t buckets;
  uint32_t count;
  strtab_hash_fn hash;
  strtab_alloc_fn alloc;
  strtab_free_fn release;
  strtab_delete_fn del;
  pthread_rwlock_t lock;
  Node **slots;
};

namespace {

uint32_t bucket_of(const strtab *t, const char *key) {
  return t->hash(t->ctx, key, t->buckets) % t->buckets;
}

Node *find(const strtab *t, uint32_t b, const char *key, Node ***link_out) {
  Node **link = &t->slots[b];
  for (Node *n = *link; n != nullptr; link = &n->next, n = n->next) {
    if (std::strcmp(n->key, key) == 0) {
      if (link_out != nullptr)
        *link_out = link;
      return n;
    }
  }
  return nullptr;
}

class ReadGuard {
public:
  explicit ReadGuard(pthread_rwlock_t *l) : l_(l) { pthread_rwlock_rdlock(l_); }
  ~ReadGuard() { pthread_rwlock_unlock(l_); }
  ReadGuard(const ReadGuard &) = delete;
  ReadGuard &operator=(const ReadGuard &) = delete;

private:
  pthread_rwlock_t *l_;
};

class WriteGuard {
public:
  explicit WriteGuard(pthread_rwlock_t *l) : l_(l) { pthread_rwlock_wrlock(l_); }
  ~WriteGuard() { pthread_rwlock_unlock(l_); }
  WriteGuard(const WriteGuard &) = delete;
  WriteGuard &operator=(const WriteGuard &) = delete;

private:
  pthread_rwlock_t *l_;
};

} // namespace

STRTAB_EXPORT int32_t StrTabCreate(void *ctx, uint32_t buckets, strtab_hash_fn hash,
                                   strtab_alloc_fn alloc, strtab_free_fn release,
                                   strtab_delete_fn del, strtab **table_out) {
  if (table_out == nullptr)
    return -1;
  *table_out = nullptr;
  // The bucket array's size must fit the 32-bit size of the allocator.
  if (buckets == 0 || buckets > (UINT32_MAX / sizeof(Node *)) || hash == nullptr ||
      alloc == nullptr || release == nullptr || del == nullptr)
    return -1;
  auto *t = static_cast<strtab *>(alloc(ctx, sizeof(strtab)));
  if (t == nullptr)
    return -1;
  std::memset(static_cast<void *>(t), 0, sizeof *t);
  t->slots = static_cast<Node **>(alloc(ctx, static_cast<uint32_t>(buckets * sizeof(Node *))));
  if (t->slots == nullptr) {
    release(ctx, t);
    return -1;
  }
  std::memset(static_cast<void *>(t->slots), 0, buckets * sizeof(Node *));
  if (pthread_rwlock_init(&t->lock, nullptr) != 0) {
    release(ctx, t->slots);
    release(ctx, t);
    return -1;
  }
  t->ctx = ctx;
  t->buckets = buckets;
  t->hash = hash;
  t->alloc = alloc;
  t->release = release;
  t->del = del;
  *table_out = t;
  return 0;
}

STRTAB_EXPORT int32_t StrTabSearch(strtab *table, const char *key, void **value_out) {
  if (table == nullptr || key == nullptr || value_out == nullptr)
    return -1;
  ReadGuard g(&table->lock);
  uint32_t b = bucket_of(table, key);
  Node *n = find(table, b, key, nullptr);
  if (n == nullptr)
    return -1;
  *value_out = n->value;
  return static_cast<int32_t>(b & 0x7fffffffu);
}

STRTAB_EXPORT int32_t StrTabInsert(strtab *table, const char *key, void *value) {
  if (table == nullptr || key == nullptr)
    return -1;
  size_t len = std::strlen(key);
  if (len > STRTAB_KEY_MAX)
    return -1;
  WriteGuard g(&table->lock);
  uint32_t b = bucket_of(table, key);
  if (find(table, b, key, nullptr) != nullptr)
    return 0;
  auto *n = static_cast<Node *>(table->alloc(table->ctx, sizeof(Node)));
  if (n == nullptr)
    return -1;
  n->key = static_cast<char *>(table->alloc(table->ctx, static_cast<uint32_t>(len + 1)));
  if (n->key == nullptr) {
    table->release(table->ctx, n);
    return -1;
  }
  std::memcpy(n->key, key, len + 1);
  n->value = value;
  n->next = table->slots[b];
  table->slots[b] = n;
  ++table->count;
  return 1;
}

STRTAB_EXPORT int32_t StrTabRemove(strtab *table, const char *key, void **value_out) {
  if (table == nullptr || key == nullptr || value_out == nullptr)
    return -1;
  WriteGuard g(&table->lock);
  Node **link = nullptr;
  Node *n = find(table, bucket_of(table, key), key, &link);
  if (n == nullptr)
    return 0;
  *link = n->next;
  *value_out = n->value;
  --table->count;
  table->release(table->ctx, n->key);
  table->release(table->ctx, n);
  return 1;
}

STRTAB_EXPORT uint32_t StrTabCount(strtab *table) {
  if (table == nullptr)
    return 0;
  ReadGuard g(&table->lock);
  return table->count;
}

STRTAB_EXPORT int32_t StrTabDestroy(strtab *table) {
  if (table == nullptr)
    return -1;
  int32_t disposed = 0;
  void *ctx = table->ctx;
  strtab_free_fn release = table->release;
  {
    WriteGuard g(&table->lock);
    for (uint32_t b = 0; b < table->buckets; ++b) {
      Node *n = table->slots[b];
      while (n != nullptr) {
        Node *next = n->next;
        table->del(ctx, n->key, n->value);
        ++disposed;
        release(ctx, n->key);
        release(ctx, n);
        n = next;
      }
      table->slots[b] = nullptr;
    }
  }
  pthread_rwlock_destroy(&table->lock);
  release(ctx, table->slots);
  release(ctx, table);
  return disposed;
}
