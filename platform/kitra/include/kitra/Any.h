// The root of every value the object model handles: data objects, faults, arrays, primitive boxes and
// managed-object references.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <vector>

#include <fundix/Object.h>
#include <fundix/Ref.h>

namespace Kitra {

class Type;

// Maps a requested allocation size to the size the allocator really uses.
using Sizer = unsigned (*)(unsigned);

// The set of property paths ("prefix.field") at which two values differ, in the order found. The first
// path is held in place, so a comparison that finds one difference (the common case) allocates nothing
// beyond the path's own text.
class PropertyDiffSet {
public:
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = std::string;
        using difference_type = std::ptrdiff_t;
        using pointer = const std::string*;
        using reference = const std::string&;

        const_iterator() = default;
        reference operator*() const { return set_->At(i_); }
        pointer operator->() const { return &set_->At(i_); }
        const_iterator& operator++() {
            ++i_;
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator before = *this;
            ++i_;
            return before;
        }
        friend bool operator==(const const_iterator& a, const const_iterator& b) { return a.i_ == b.i_; }

    private:
        friend class PropertyDiffSet;
        const_iterator(const PropertyDiffSet* set, size_t i) : set_(set), i_(i) {}
        const PropertyDiffSet* set_ = nullptr;
        size_t i_ = 0;
    };
    using value_type = std::string;
    using iterator = const_iterator;
    using size_type = size_t;

    const_iterator begin() const { return {this, 0}; }
    const_iterator end() const { return {this, size()}; }
    size_t size() const { return hasFirst_ ? 1 + rest_.size() : 0; }
    bool empty() const { return !hasFirst_; }

    void Add(const std::string& path);
    void Add(std::string&& path);
    bool Contains(const std::string& path) const;
    size_t Size() const { return size(); }
    bool Empty() const { return empty(); }
    // The paths, copied out in the order found.
    std::vector<std::string> Paths() const { return {begin(), end()}; }
    void Clear() {
        first_.clear();
        rest_.clear();
        hasFirst_ = false;
    }

private:
    const std::string& At(size_t i) const { return i == 0 ? first_ : rest_[i - 1]; }

    std::string first_;
    std::vector<std::string> rest_;
    bool hasFirst_ = false;
};

class Any : public Fundix::ObjectImpl {
public:
    virtual Type* _GetType() const = 0;
    virtual Any* _Clone() const = 0;
    // `partial` forgives a difference in an optional field that is unset or null in `other`.
    virtual bool _IsEqual(const Any* other, bool partial) const = 0;
    // Adds to `diffs` every path below `prefix` at which `other` differs; `prefix` itself when the
    // values cannot be compared field by field.
    virtual void _DiffProperties(const Any* other, const std::string& prefix, PropertyDiffSet& diffs) const;
    virtual unsigned _GetSize(Sizer sizer) const = 0;

protected:
    Any() = default;
    Any(const Any&) = default;
};

// A sizer that reports sizes as requested.
unsigned IdentitySizer(unsigned size);

// Compares two values held in a property with `flags`. Two nulls are equal; a null and an empty array are
// equal; with `partial`, a null `theirs` in an optional property is forgiven.
bool AreEqualAnysInt(const Any* mine, const Any* theirs, uint32_t flags, bool partial);

// Adds `path` (or deeper paths, for data objects of one class) when the two values differ.
void DiffAnyPropertiesInt(const Any* mine, const Any* theirs, const std::string& path, uint32_t flags,
                          PropertyDiffSet& diffs);

// Any extra memory a value holds beyond its object; for strings, the heap buffer.
unsigned GetExtraSize(const std::string& text, Sizer sizer);

}  // namespace Kitra
