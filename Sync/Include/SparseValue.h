#pragma once

#include <QSharedData>
#include <QSharedDataPointer>
#include <QString>

namespace sync {
namespace config {

// A value that records carry for the host and that is nearly always empty, held in one
// pointer: nothing is allocated while it is empty, and copies share it. Reads and assigns like
// the value itself. Trees hold hundreds of thousands of records, three trees at a time, and
// with Qt 6 an empty string or list still takes three pointers in each of them.
template <typename Value>
class SparseValue {
public:
    SparseValue() = default;
    SparseValue(const Value& value) { *this = value; }  // NOLINT: reads like the value
    SparseValue& operator=(const Value& value) {
        if (IsDefault(value))
            _d = QSharedDataPointer<Holder>();
        else
            _d = new Holder(value);
        return *this;
    }

    const Value& value() const { return _d ? _d->value : Empty(); }
    operator const Value&() const { return value(); }  // NOLINT: reads like the value
    bool isEmpty() const { return !_d || _d->value.isEmpty(); }
    bool isSharedWith(const SparseValue& o) const { return _d == o._d; }
    auto begin() const { return value().begin(); }
    auto end() const { return value().end(); }

    bool operator==(const SparseValue& o) const { return _d == o._d || value() == o.value(); }
    bool operator!=(const SparseValue& o) const { return !(*this == o); }
    bool operator==(const Value& o) const { return value() == o; }
    bool operator!=(const Value& o) const { return value() != o; }

private:
    struct Holder : QSharedData {
        explicit Holder(const Value& v) : value(v) {}
        Value value;
    };
    // Only a value that reads exactly like a default one is not held: an empty string that is
    // not null stays so.
    static bool IsDefault(const QString& v) { return v.isNull(); }
    template <typename Other>
    static bool IsDefault(const Other& v) {
        return v.isEmpty();
    }
    static const Value& Empty() {
        static const Value empty;
        return empty;
    }

    QSharedDataPointer<Holder> _d;
};

}  // namespace config
}  // namespace sync
