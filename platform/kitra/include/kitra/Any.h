// The root of every value the object model handles: data objects, faults, arrays, primitive boxes and
// managed-object references.
#pragma once

#include <string>
#include <vector>

#include <fundix/Object.h>
#include <fundix/Ref.h>

namespace Kitra {

class Type;

// Maps a requested allocation size to the size the allocator really uses.
using Sizer = unsigned (*)(unsigned);

// The set of property paths ("prefix.field") at which two values differ, in the order found.
class PropertyDiffSet {
public:
    using value_type = std::string;
    using const_iterator = std::vector<std::string>::const_iterator;
    using iterator = const_iterator;
    using size_type = size_t;

    const_iterator begin() const { return paths_.begin(); }
    const_iterator end() const { return paths_.end(); }
    size_t size() const { return paths_.size(); }
    bool empty() const { return paths_.empty(); }

    void Add(const std::string& path);
    void Add(std::string&& path);
    bool Contains(const std::string& path) const;
    size_t Size() const { return paths_.size(); }
    bool Empty() const { return paths_.empty(); }
    const std::vector<std::string>& Paths() const { return paths_; }
    void Clear() { paths_.clear(); }

private:
    std::vector<std::string> paths_;
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
