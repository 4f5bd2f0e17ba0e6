#pragma once
// Array helpers over std::vector, with the cocoa array semantics the show model
// relies on (the reorder of cues, effects and tabs).

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

// The "no index" answer of carts, grid selection and neighbour look-ups.
inline constexpr size_t NSNotFound = 0x7FFFFFFF;

namespace kyo_detail {
template <typename T>
const void* identityOf(const T& value) {
  if constexpr (std::is_pointer_v<T>)
    return static_cast<const void*>(value);
  else
    return static_cast<const void*>(std::to_address(value));
}
}  // namespace kyo_detail

// Identity, not equality: the same object, for raw and smart pointers.
template <typename P, typename Q>
size_t indexOfObjectIdenticalTo(const std::vector<P>& array, const Q& object) {
  const void* target = kyo_detail::identityOf(object);
  for (size_t i = 0; i < array.size(); ++i)
    if (kyo_detail::identityOf(array[i]) == target) return i;
  return NSNotFound;
}

template <typename P, typename Q>
bool containsObjectIdenticalTo(const std::vector<P>& array, const Q& object) {
  return indexOfObjectIdenticalTo(array, object) != NSNotFound;
}

// Inserts the object at `to`, then removes it from its old place: it ends at `to`
// when moved to a lower index and at to - 1 when moved to a higher one. A `to` at
// or past the end appends. An invalid `from` does nothing.
template <typename T>
void moveObjectAt(std::vector<T>& array, size_t from, size_t to) {
  if (from == to || from >= array.size()) return;
  T object = std::move(array[from]);
  if (to >= array.size()) {
    array.push_back(std::move(object));
    array.erase(array.begin() + std::ptrdiff_t(from));
    return;
  }
  array.insert(array.begin() + std::ptrdiff_t(to), std::move(object));
  array.erase(array.begin() + std::ptrdiff_t(to < from ? from + 1 : from));
}

// Appends the other array's objects from the given index on.
template <typename T>
void addObjectsFromArray(std::vector<T>& array, const std::vector<T>& other, size_t fromIndex) {
  if (fromIndex >= other.size()) return;
  array.insert(array.end(), other.begin() + std::ptrdiff_t(fromIndex), other.end());
}
