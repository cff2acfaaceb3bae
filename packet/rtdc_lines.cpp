#include "packet/rtdc_lines.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "packet/rtdc_buffer.h"

namespace rtdc_lines {
namespace {

constexpr size_t kBlock = 1 << 20;

// Blocks of line text for one array. Only the collection thread (or a request thread that
// holds snapshot_mutex) touches the arrays, so no lock is taken here.
class Store {
  public:
    char* reserve(size_t max) {
        if (max > kBlock) return nullptr;
        if (current_ < blocks_.size() && used_ + max <= kBlock)
            return blocks_[current_].get() + used_;
        size_t next = current_ < blocks_.size() ? current_ + 1 : 0;
        if (next >= blocks_.size()) {
            char* block = new (std::nothrow) char[kBlock];
            if (!block) return nullptr;
            blocks_.emplace_back(block);
        }
        current_ = next;
        used_ = 0;
        return blocks_[current_].get();
    }

    void commit(size_t n) { used_ += n; }

    // Reuse from the first block. Blocks the last scan did not reach are returned, so a
    // host that shrank does not keep the memory of its largest scan; with `keep` false
    // every block is returned.
    void reset(bool keep) {
        size_t kept = keep ? current_ + 1 : 0;
        if (blocks_.size() > kept) blocks_.resize(kept);
        current_ = 0;
        used_ = 0;
    }

    // The position where the next line would go, or null before the first block.
    const char* cursor() const {
        return current_ < blocks_.size() ? blocks_[current_].get() + used_ : nullptr;
    }

  private:
    std::vector<std::unique_ptr<char[]>> blocks_;
    size_t current_ = 0;
    size_t used_ = 0;
};

struct Entry {
    const char* text;  // the string this store put at the index, to recognise it later
    size_t length;
};

// The records of one array's 65,536 entries take 1 MiB. They come from calloc, whose
// fresh pages are the system's zero pages until written: a host with a few hundred lines
// a scan touches a few pages of them, not the whole table (a zero-initialised member array
// had been written through, 2 MiB for the two arrays at any size of host).
Entry* zeroed_entries() {
    return static_cast<Entry*>(calloc(kMaxLines, sizeof(Entry)));
}

struct ArrayStore {
    char** lines;
    // Data lines are made every scan, so their blocks are worth keeping; header lines only
    // when a console connects, and at thousands of processes they take megabytes that
    // would otherwise sit unused between connections.
    bool keep_blocks;
    Store store;
    Entry* entries;  // kMaxLines records, or null when memory ran out: nothing is stored
    int high = 0;    // entries at and above this index are clear

    // Forgets every line of the array: the records first, so that no stale record can
    // later match a string that malloc hands out at an address a returned block had.
    void clear() {
        for (int i = 0; i < high; ++i) entries[i] = {nullptr, 0};
        high = 0;
        store.reset(keep_blocks);
    }
};

ArrayStore& headers_store() {
    static ArrayStore* s = new ArrayStore{rtdc_data_headers, false, {}, zeroed_entries(), 0};
    return *s;
}
ArrayStore& buffers_store() {
    static ArrayStore* s = new ArrayStore{rtdc_data_buffers, true, {}, zeroed_entries(), 0};
    return *s;
}

// The store of one of the two line arrays; null for any other array, and for those two
// when their records could not be allocated (their lines are then plain malloc'd ones).
ArrayStore* store_for(char* const* lines) {
    ArrayStore* a = nullptr;
    if (lines == rtdc_data_headers) a = &headers_store();
    if (lines == rtdc_data_buffers) a = &buffers_store();
    return a && a->entries ? a : nullptr;
}

}  // namespace

char* reserve(char** lines, int count, size_t max) {
    ArrayStore* a = store_for(lines);
    if (!a) return nullptr;
    // An empty array holds no line of this store any more, however it was emptied.
    if (count == 0) a->clear();
    return a->store.reserve(max);
}

bool store(char** lines, int* count, int* total_len, const char* text, size_t len) {
    if (*count < 0 || *count >= kMaxLines) return false;
    ArrayStore* a = store_for(lines);
    char* kept = nullptr;
    if (a) {
        if (text == a->store.cursor()) {
            kept = const_cast<char*>(text);
        } else {
            if (*count == 0) a->clear();
            kept = a->store.reserve(len + 1);
            if (kept) memcpy(kept, text, len);
        }
        if (kept) {
            kept[len] = '\0';
            a->store.commit(len + 1);
            a->entries[*count] = {kept, len};
            if (*count >= a->high) a->high = *count + 1;
        }
    } else {
        kept = static_cast<char*>(malloc(len + 1));
        if (kept) {
            memcpy(kept, text, len);
            kept[len] = '\0';
        }
    }
    if (!kept) return false;
    lines[(*count)++] = kept;
    *total_len += static_cast<int>(len + 1);
    return true;
}

size_t length(char* const* lines, int i) {
    const char* text = lines[i];
    if (!text) return 0;
    if (ArrayStore* a = store_for(lines); a && a->entries[i].text == text)
        return a->entries[i].length;
    return strlen(text);
}

void release(char** lines, int count) {
    ArrayStore* a = store_for(lines);
    for (int i = 0; i < count; ++i) {
        if (!a || a->entries[i].text != lines[i]) free(lines[i]);  // put in by someone else
        lines[i] = nullptr;
    }
    if (a) a->clear();
}

}  // namespace rtdc_lines
