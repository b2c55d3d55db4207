#pragma once

#include <algorithm>
#include <bit>
#include <compare>
#include <concepts>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <utility>
#include <vector>

namespace vantorix {

template <class Element>
class FixedRingBuffer;

namespace detail {

// A run of slots that the owning buffer fills in order, each exactly once. A written slot never
// changes again, so readers on other threads may read the slots they were given while the owner
// writes the next ones: the two never touch the same memory. Written elements live until the
// segment itself goes, which is when the buffer and every view have let go of it.
template <class Element>
class RingSegment {
public:
    explicit RingSegment(std::size_t length) : slots_(std::allocator<Element>().allocate(length)), length_(length) {}
    ~RingSegment() {
        std::destroy_n(slots_, written_);
        std::allocator<Element>().deallocate(slots_, length_);
    }
    RingSegment(const RingSegment&) = delete;
    RingSegment& operator=(const RingSegment&) = delete;

    // Owner only. Writes the next slot; when the element's constructor throws, nothing changes.
    template <class Value>
    void push(Value&& value) {
        std::construct_at(slots_ + written_, std::forward<Value>(value));
        ++written_;
    }
    const Element* data() const noexcept { return slots_; }

private:
    Element* const slots_;
    const std::size_t length_;
    std::size_t written_ = 0;
};

// One segment of a buffer's list, with its slots at hand so that reading an element takes one
// lookup in the list and one in the segment.
template <class Element>
struct RingSegmentRef {
    std::shared_ptr<RingSegment<Element>> segment;
    const Element* slots;
};

// The segments of a buffer, first (oldest) to last. A list is never changed once it has been
// shared: the buffer builds a new one whenever it adds or drops a segment.
template <class Element>
using RingSegments = std::vector<RingSegmentRef<Element>>;

}  // namespace detail

// An immutable snapshot of a FixedRingBuffer's elements, oldest first, read like a const
// std::vector. A view shares the buffer's storage instead of copying it: taking, copying and
// destroying a view cost one reference count each, whatever the number of elements. It never
// changes, whatever happens to the buffer afterwards (appends, evictions, removeAll, destruction),
// and it may be read on any thread while the buffer's owner keeps appending, as long as the view
// itself was handed over with the usual synchronisation (a queue, a lock). A view keeps the
// storage segments it shows alive, so a view held for long pins up to one buffer's worth of
// memory. Iterators and references stay valid as long as the view they came from, or a copy of it.
template <class Element>
class RingBufferView {
    using SegmentRef = detail::RingSegmentRef<Element>;
    using Segments = detail::RingSegments<Element>;

public:
    using value_type = Element;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = const Element&;
    using const_reference = const Element&;
    using pointer = const Element*;
    using const_pointer = const Element*;

    class const_iterator {
    public:
        using iterator_concept = std::random_access_iterator_tag;
        using iterator_category = std::random_access_iterator_tag;
        using value_type = Element;
        using difference_type = std::ptrdiff_t;
        using pointer = const Element*;
        using reference = const Element&;

        const_iterator() noexcept = default;

        reference operator*() const noexcept { return at(position_); }
        pointer operator->() const noexcept { return std::addressof(at(position_)); }
        reference operator[](difference_type n) const noexcept { return at(position_ + n); }

        const_iterator& operator++() noexcept { return *this += 1; }
        const_iterator operator++(int) noexcept {
            const_iterator before = *this;
            ++*this;
            return before;
        }
        const_iterator& operator--() noexcept { return *this -= 1; }
        const_iterator operator--(int) noexcept {
            const_iterator before = *this;
            --*this;
            return before;
        }
        const_iterator& operator+=(difference_type n) noexcept {
            position_ += n;
            return *this;
        }
        const_iterator& operator-=(difference_type n) noexcept {
            position_ -= n;
            return *this;
        }
        friend const_iterator operator+(const_iterator it, difference_type n) noexcept { return it += n; }
        friend const_iterator operator+(difference_type n, const_iterator it) noexcept { return it += n; }
        friend const_iterator operator-(const_iterator it, difference_type n) noexcept { return it -= n; }
        friend difference_type operator-(const const_iterator& a, const const_iterator& b) noexcept {
            return a.position_ - b.position_;
        }
        friend bool operator==(const const_iterator& a, const const_iterator& b) noexcept {
            return a.position_ == b.position_;
        }
        friend std::strong_ordering operator<=>(const const_iterator& a, const const_iterator& b) noexcept {
            return a.position_ <=> b.position_;
        }

    private:
        friend class RingBufferView;
        const_iterator(const SegmentRef* table, difference_type position, unsigned shift) noexcept
            : table_(table), position_(position), shift_(shift) {}

        reference at(difference_type position) const noexcept {
            return RingBufferView::slot(table_, static_cast<size_type>(position), shift_);
        }

        // Positions count slots from the start of the first segment, like the view's offset.
        const SegmentRef* table_ = nullptr;
        difference_type position_ = 0;
        unsigned shift_ = 0;
    };
    using iterator = const_iterator;
    using const_reverse_iterator = std::reverse_iterator<const_iterator>;
    using reverse_iterator = const_reverse_iterator;

    // An empty view.
    RingBufferView() noexcept = default;

    size_type size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }

    // The element `index` places after the oldest; `index` must be less than size(). O(1).
    const Element& operator[](size_type index) const noexcept { return slot(table_, offset_ + index, shift_); }
    const Element& at(size_type index) const {
        if (index >= size_) throw std::out_of_range("RingBufferView::at");
        return (*this)[index];
    }
    const Element& front() const noexcept { return (*this)[0]; }
    const Element& back() const noexcept { return (*this)[size_ - 1]; }

    const_iterator begin() const noexcept { return iteratorAt(offset_); }
    const_iterator end() const noexcept { return iteratorAt(offset_ + size_); }
    const_iterator cbegin() const noexcept { return begin(); }
    const_iterator cend() const noexcept { return end(); }
    const_reverse_iterator rbegin() const noexcept { return const_reverse_iterator(end()); }
    const_reverse_iterator rend() const noexcept { return const_reverse_iterator(begin()); }

    // Calls `visit` with each run of consecutive elements, as a std::span<const Element>, oldest
    // first: one call per storage segment. The fastest way through the whole view.
    template <class Visit>
    void forEachSpan(Visit&& visit) const {
        size_type start = offset_;
        size_type remaining = size_;
        for (size_type segment = 0; remaining > 0; ++segment, start = 0) {
            const size_type taken = std::min(segmentLength() - start, remaining);
            visit(std::span<const Element>(table_[segment].slots + start, taken));
            remaining -= taken;
        }
    }

    // A copy of the elements, oldest first.
    std::vector<Element> toVector() const {
        std::vector<Element> out;
        out.reserve(size_);
        forEachSpan([&out](std::span<const Element> run) { out.insert(out.end(), run.begin(), run.end()); });
        return out;
    }

    friend bool operator==(const RingBufferView& a,
                           const RingBufferView& b) requires std::equality_comparable<Element> {
        return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
    }

private:
    friend class FixedRingBuffer<Element>;

    RingBufferView(std::shared_ptr<const Segments> segments, size_type offset, size_type size, unsigned shift) noexcept
        : segments_(std::move(segments)),
          table_(segments_ ? segments_->data() : nullptr),
          offset_(offset),
          size_(size),
          shift_(shift) {}

    static const Element& slot(const SegmentRef* table, size_type position, unsigned shift) noexcept {
        return table[position >> shift].slots[position & ((size_type{1} << shift) - 1)];
    }
    const_iterator iteratorAt(size_type position) const noexcept {
        return const_iterator(table_, static_cast<difference_type>(position), shift_);
    }
    size_type segmentLength() const noexcept { return size_type{1} << shift_; }

    std::shared_ptr<const Segments> segments_;
    const SegmentRef* table_ = nullptr;  // segments_->data(): the list never changes
    size_type offset_ = 0;               // slot of the oldest element in the first segment
    size_type size_ = 0;
    unsigned shift_ = 0;  // log2 of the segment length
};

// A bounded history: once `capacity` elements are held, each new one pushes out the oldest.
//
// The elements are stored in segments of a fixed length K (the capacity rounded up to a power of
// two, at most 1024) that are filled in order and never rewritten: a new element goes into the
// last segment (or a new one when that is full), and evicting the oldest only moves the start
// forward, dropping the first segment once all of its elements are gone. Nothing is moved or
// copied on append or eviction besides the new element (and the copy of the evicted element that
// append returns), which is what lets elements() hand out a snapshot without copying.
//
// Costs: append O(1), plus, about twice every K appends (a segment added, a segment dropped),
// one new segment list of at most capacity / K + 2 pointers; elements() and copying a view O(1);
// removeAll() O(1) apart from destroying the elements no view still shows. Memory: the elements
// held plus fewer than 2K further slots, and whatever older views still keep alive.
//
// Not synchronised: one thread owns the buffer. The views it hands out are safe on any thread.
template <class Element>
class FixedRingBuffer {
public:
    using Elements = RingBufferView<Element>;

    static constexpr std::size_t maximumSegmentLength = 1024;

    // `capacity` must be at least 1.
    explicit FixedRingBuffer(std::size_t capacity)
        : capacity_(capacity),
          shift_(static_cast<unsigned>(std::countr_zero(std::bit_ceil(std::min(capacity, maximumSegmentLength))))) {
        if (capacity == 0) throw std::invalid_argument("FixedRingBuffer needs a capacity of at least 1");
    }

    // Move-only: a copy would have to copy the partly filled last segment, and nothing needs one.
    // A moved-from buffer is empty and keeps its capacity.
    FixedRingBuffer(const FixedRingBuffer&) = delete;
    FixedRingBuffer& operator=(const FixedRingBuffer&) = delete;
    FixedRingBuffer(FixedRingBuffer&& other) noexcept
        : capacity_(other.capacity_),
          shift_(other.shift_),
          segments_(std::move(other.segments_)),
          head_(std::exchange(other.head_, 0)),
          count_(std::exchange(other.count_, 0)) {}
    FixedRingBuffer& operator=(FixedRingBuffer&& other) noexcept {
        capacity_ = other.capacity_;
        shift_ = other.shift_;
        segments_ = std::move(other.segments_);
        head_ = std::exchange(other.head_, 0);
        count_ = std::exchange(other.count_, 0);
        return *this;
    }
    ~FixedRingBuffer() = default;

    std::size_t capacity() const noexcept { return capacity_; }
    std::size_t count() const noexcept { return count_; }
    // K, the number of slots per storage segment.
    std::size_t segmentLength() const noexcept { return std::size_t{1} << shift_; }

    // Stores `element` as the newest. Returns the element it pushed out (a copy: views may still
    // show the original), or nothing while the buffer was not full. When an exception is thrown
    // (allocation, the element's copy or move), the buffer is unchanged.
    std::optional<Element> append(Element element) {
        const std::size_t length = segmentLength();
        const bool full = count_ == capacity_;
        std::optional<Element> evicted;
        if (full) evicted.emplace(segments_->front().slots[head_]);

        // Positions count slots from the start of the first segment.
        const std::size_t end = head_ + count_;
        const bool dropFirst = full && head_ + 1 == length;
        const bool addSegment = !segments_ || end == segments_->size() * length;

        std::shared_ptr<const Segments> segments = segments_;
        if (dropFirst || addSegment) {
            auto rebuilt = std::make_shared<Segments>();
            if (segments_) {
                rebuilt->reserve(segments_->size() + 1);
                rebuilt->assign(segments_->begin() + (dropFirst ? 1 : 0), segments_->end());
            }
            if (addSegment) rebuilt->push_back(makeSegment());
            segments = std::move(rebuilt);
        }
        segments->back().segment->push(std::move(element));

        // Nothing below throws.
        segments_ = std::move(segments);
        if (full) {
            head_ = dropFirst ? 0 : head_ + 1;
        } else {
            ++count_;
        }
        return evicted;
    }

    // The elements, oldest first, as a snapshot that later changes to the buffer do not affect.
    Elements elements() const noexcept { return Elements(segments_, head_, count_, shift_); }

    // Empties the buffer; the next append starts a fresh segment. Views taken before keep showing
    // what they showed.
    void removeAll() noexcept {
        segments_.reset();
        head_ = 0;
        count_ = 0;
    }

private:
    using Segment = detail::RingSegment<Element>;
    using Segments = detail::RingSegments<Element>;

    detail::RingSegmentRef<Element> makeSegment() const {
        auto segment = std::make_shared<Segment>(segmentLength());
        const Element* slots = segment->data();
        return {std::move(segment), slots};
    }

    std::size_t capacity_;
    unsigned shift_;  // log2 of the segment length
    // Null while empty after construction or removeAll(). Shared with views, so never modified in
    // place: adding or dropping a segment builds a new list. The buffer only ever writes into the
    // slots after the last written one of the last segment.
    std::shared_ptr<const Segments> segments_;
    std::size_t head_ = 0;  // slot of the oldest element in the first segment
    std::size_t count_ = 0;
};

}  // namespace vantorix
