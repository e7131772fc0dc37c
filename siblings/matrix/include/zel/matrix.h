// zel matrix library: the containers every zel mesh library speaks.
//
// dense2D<T>  a column-major matrix *view* on shared, reference-counted storage:
//             entry (i, j) is buffer[offset + j * ld + i]; ld >= rows, so a view may
//             skip rows (a sub-block of a larger matrix) and every loop steps by ld().
// dense1D<T>  a vector on the same storage: element i is buffer[offset + i].
// vector_fixed<T, N>, symmetric_fixed<T, N>   small fixed-size values.
//
// Copies are shallow: a copy shares the buffer and bumps an atomic count, and writes
// through one copy are seen by the others. A copy that must *grow* (resize or reserve
// beyond what it owns alone) first detaches onto a private buffer, so growing one view
// never overwrites another's entries.
//
// Nothing here throws. Every operation that may allocate returns bool and leaves the
// object as it was when memory cannot be obtained. Constructors that allocate leave the
// object empty on failure: check empty() when that matters.
//
// All memory goes through __vector_num_alloc / __vector_num_free, which route through a
// replaceable pair of functions (set_vector_num_allocator), so that users can plug their
// own allocator or accounting and tests can make any allocation fail. Install it before
// calls start, never while other threads allocate.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "zel/zel_matrix_export.h"

namespace zel {

using vector_num_alloc_fn = void* (*)(std::size_t bytes);
using vector_num_free_fn = void (*)(void* memory);

/// Raw buffer memory: nullptr when memory runs out (never throws).
ZEL_MATRIX_EXPORT void* __vector_num_alloc(std::size_t bytes);
/// Releases memory from __vector_num_alloc; nullptr is ignored.
ZEL_MATRIX_EXPORT void __vector_num_free(void* memory);
/// Installs the pair used by the two functions above (nullptr restores malloc/free)
/// and returns the previous pair.
ZEL_MATRIX_EXPORT std::pair<vector_num_alloc_fn, vector_num_free_fn> set_vector_num_allocator(
    vector_num_alloc_fn alloc_fn, vector_num_free_fn free_fn);

namespace math1 {

/// Reference-count base of shared buffers. The count changes atomically, so shallow
/// copies may be made and dropped from several threads at once.
class ref_counted {
 public:
  using dispose_fn = void (*)(ref_counted*);

  explicit ref_counted(dispose_fn dispose) noexcept : count_(0), dispose_(dispose) {}
  ref_counted(const ref_counted&) = delete;
  ref_counted& operator=(const ref_counted&) = delete;
  ~ref_counted() = default;

  void add_ref() noexcept { count_.fetch_add(1, std::memory_order_relaxed); }
  /// Drops one reference; true when it was the last one.
  bool release_ref() noexcept { return count_.fetch_sub(1, std::memory_order_acq_rel) == 1; }
  std::size_t use_count() const noexcept { return count_.load(std::memory_order_acquire); }
  /// Disposes of an object whose count has reached zero.
  void destroy() noexcept { dispose_(this); }

 private:
  std::atomic<std::size_t> count_;
  dispose_fn dispose_;
};

}  // namespace math1

/// Counted handle to a ref_counted object.
template <class T>
class Ptr {
 public:
  Ptr() noexcept = default;
  explicit Ptr(T* object) noexcept : object_(object) { add_ref(); }
  Ptr(const Ptr& other) noexcept : object_(other.object_) { add_ref(); }
  Ptr(Ptr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  ~Ptr() { release(); }

  Ptr& operator=(const Ptr& other) noexcept { return *this = other.object_; }
  Ptr& operator=(Ptr&& other) noexcept {
    if (this != &other) {
      release();
      object_ = other.object_;
      other.object_ = nullptr;
    }
    return *this;
  }
  /// Rebinds the handle to `object` (which gains a reference; the old one loses one).
  Ptr& operator=(T* object) noexcept {
    if (object) object->add_ref();
    release();
    object_ = object;
    return *this;
  }

  T* get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }
  /// True when this handle is the only reference to its object.
  bool unique() const noexcept { return object_ && object_->use_count() == 1; }
  void reset() noexcept {
    release();
    object_ = nullptr;
  }

 private:
  void add_ref() noexcept {
    if (object_) object_->add_ref();
  }
  void release() noexcept {
    if (object_ && object_->release_ref()) object_->destroy();
  }
  T* object_ = nullptr;
};

/// A growable buffer of trivially copyable values, shared through Ptr.
template <class T, unsigned A = 8>
class vector_num : public math1::ref_counted {
  static_assert(std::is_trivially_copyable<T>::value, "vector_num holds plain values");

 public:
  /// A new buffer with room for `capacity` values; nullptr when memory runs out.
  static vector_num* create(std::size_t capacity) noexcept {
    void* memory = __vector_num_alloc(sizeof(vector_num));
    if (!memory) return nullptr;
    vector_num* buffer = new (memory) vector_num();
    if (!buffer->grow(capacity, 0)) {
      dispose(buffer);
      return nullptr;
    }
    return buffer;
  }

  /// A buffer over `capacity` values of memory owned by the caller (who keeps it alive
  /// while the buffer lives); it is never freed here, and growing moves the values to
  /// memory of the buffer's own. nullptr when memory runs out.
  static vector_num* create_external(T* external, std::size_t capacity) noexcept {
    void* memory = __vector_num_alloc(sizeof(vector_num));
    if (!memory) return nullptr;
    vector_num* buffer = new (memory) vector_num();
    buffer->data_ = external;
    buffer->capacity_ = capacity;
    buffer->owns_data_ = false;
    return buffer;
  }

  T* data() noexcept { return data_; }
  const T* data() const noexcept { return data_; }
  std::size_t capacity() const noexcept { return capacity_; }

  /// Enlarges the buffer to at least `capacity` values, keeping its first `keep` values.
  /// The object itself stays where it is, so every view of it stays valid.
  bool grow(std::size_t capacity, std::size_t keep) noexcept {
    if (capacity <= capacity_) return true;
    if (capacity > std::numeric_limits<std::size_t>::max() / sizeof(T)) return false;
    T* fresh = static_cast<T*>(__vector_num_alloc(capacity * sizeof(T)));
    if (!fresh) return false;
    if (keep > capacity_) keep = capacity_;
    if (keep) std::memcpy(static_cast<void*>(fresh), data_, keep * sizeof(T));
    if (owns_data_) __vector_num_free(data_);
    data_ = fresh;
    capacity_ = capacity;
    owns_data_ = true;
    return true;
  }

 private:
  vector_num() noexcept : math1::ref_counted(&dispose) {}
  ~vector_num() = default;
  static void dispose(math1::ref_counted* object) noexcept {
    auto* buffer = static_cast<vector_num*>(object);
    if (buffer->owns_data_) __vector_num_free(buffer->data_);
    buffer->~vector_num();
    __vector_num_free(buffer);
  }

  T* data_ = nullptr;
  std::size_t capacity_ = 0;
  bool owns_data_ = true;
};

template <class T, unsigned A = 8>
class dense1D;

/// Column-major matrix view on shared storage (see the file comment).
template <class T>
class dense2D {
 public:
  using value_type = T;
  using size_type = std::size_t;
  using buffer_type = vector_num<T, 8>;

  /// Empty: no storage, 0 x 0.
  dense2D() noexcept = default;
  /// rows x cols, every entry value-initialised (0); empty if memory runs out.
  dense2D(size_type rows, size_type cols) noexcept { resize(rows, cols, T()); }
  /// rows x cols, every entry equal to value; empty if memory runs out.
  dense2D(size_type rows, size_type cols, const T& value) noexcept { resize(rows, cols, value); }
  /// rows x cols from values listed column by column; empty when the count differs.
  dense2D(size_type rows, size_type cols, std::initializer_list<T> values) noexcept {
    if (values.size() != rows * cols || !resize(rows, cols, T())) return;
    std::copy(values.begin(), values.end(), data());
  }

  /// A view of rows x cols values that the caller owns, column j starting at
  /// data + j * ld (zero-copy input from other containers). The caller keeps the memory
  /// alive while any copy of the view lives; writes go to it, and growth beyond it moves
  /// the matrix to a buffer of its own. Empty if the view's header cannot be allocated.
  static dense2D wrap(T* data, size_type rows, size_type cols, size_type ld) noexcept {
    dense2D view;
    if (ld < rows) return view;
    const size_type span = cols == 0 ? 0 : ld * (cols - 1) + rows;
    if (span != 0 || data) {
      buffer_type* buffer = buffer_type::create_external(data, span);
      if (!buffer) return view;
      view.storage_ = buffer;
    }
    view.rows_ = rows;
    view.cols_ = cols;
    view.ld_ = ld;
    return view;
  }

  dense2D(const dense2D&) noexcept = default;
  dense2D(dense2D&& other) noexcept { swap(other); }
  dense2D& operator=(const dense2D&) noexcept = default;
  dense2D& operator=(dense2D&& other) noexcept {
    if (this != &other) {
      dense2D dropped;
      dropped.swap(other);
      swap(dropped);
    }
    return *this;
  }
  ~dense2D() = default;

  size_type rows() const noexcept { return rows_; }
  size_type cols() const noexcept { return cols_; }
  /// Distance between the starts of two successive columns (>= rows()).
  size_type ld() const noexcept { return ld_; }
  /// Index of entry (0, 0) in the buffer.
  size_type offset() const noexcept { return offset_; }
  bool empty() const noexcept { return rows_ * cols_ == 0; }

  T* data() noexcept { return storage_ ? storage_->data() + offset_ : nullptr; }
  const T* data() const noexcept { return storage_ ? storage_->data() + offset_ : nullptr; }
  // Entry access assumes storage (an entry exists), so it skips data()'s null test.
  T& operator()(size_type i, size_type j) noexcept { return storage_->data()[offset_ + j * ld_ + i]; }
  const T& operator()(size_type i, size_type j) const noexcept { return storage_->data()[offset_ + j * ld_ + i]; }
  /// The shared buffer (null when there is none).
  const Ptr<buffer_type>& storage() const noexcept { return storage_; }

  /// View of rows [i0, i0 + rows) and columns [j0, j0 + cols), sharing the buffer;
  /// empty when the block does not lie inside this matrix.
  dense2D sub_matrix(size_type i0, size_type j0, size_type rows, size_type cols) const noexcept {
    dense2D view;
    if (i0 > rows_ || rows > rows_ - i0 || j0 > cols_ || cols > cols_ - j0) return view;
    view.storage_ = storage_;
    view.offset_ = offset_ + j0 * ld_ + i0;
    view.rows_ = rows;
    view.cols_ = cols;
    view.ld_ = ld_;
    return view;
  }

  /// New shape; entries keep their (row, column) and value, new entries are value-initialised.
  bool resize(size_type rows, size_type cols) noexcept { return resize(rows, cols, T()); }

  /// New shape; entries keep their (row, column) and value, new entries are `fill`.
  /// Works in place when this matrix owns its buffer alone and the shape fits it;
  /// otherwise moves to a new buffer of exactly rows x cols. False (nothing changed)
  /// when memory cannot be obtained.
  bool resize(size_type rows, size_type cols, const T& fill) noexcept {
    if (rows == rows_ && cols == cols_) return true;
    if (rows != 0 && cols > std::numeric_limits<size_type>::max() / rows) return false;
    const size_type old_ld = ld_;
    if (storage_.unique() && rows_ * cols_ == 0 && rows > ld_) ld_ = rows;  // nothing stored: free layout
    if (fits_in_place(rows, cols)) {
      T* base = rows * cols != 0 ? storage_->data() + offset_ : nullptr;  // nothing to fill otherwise
      if (base && rows > rows_)
        for (size_type j = 0; j < cols_ && j < cols; ++j)
          std::fill(base + j * ld_ + rows_, base + j * ld_ + rows, fill);
      if (base)
        for (size_type j = cols_; j < cols; ++j) std::fill(base + j * ld_, base + j * ld_ + rows, fill);
      if (rows > ld_) ld_ = rows;  // only possible when cols == 0: nothing is stored
      rows_ = rows;
      cols_ = cols;
      return true;
    }
    ld_ = old_ld;
    return relayout(rows, rows, cols, rows, cols, &fill);
  }

  /// Makes room for a rows x cols shape without changing the current shape or values,
  /// so that a later resize within it cannot fail. `flag` 0 lets the room grow by half
  /// of the current capacity at least; any other value reserves exactly what is asked
  /// (the library always passes 1).
  bool reserve(size_type rows, size_type cols, int flag) noexcept {
    if (rows < rows_) rows = rows_;
    if (cols < cols_) cols = cols_;
    if (rows != 0 && cols > std::numeric_limits<size_type>::max() / rows) return false;
    if (rows * cols == 0 || fits_in_place(rows, cols)) return true;
    const size_type old_ld = ld_;
    if (storage_.unique() && rows_ * cols_ == 0 && rows > ld_) ld_ = rows;  // nothing stored: free layout
    if (storage_.unique() && rows <= ld_) {
      const size_type max = std::numeric_limits<size_type>::max();
      if (offset_ > max - rows || cols - 1 > (max - offset_ - rows) / ld_) {
        ld_ = old_ld;
        return false;
      }
      size_type needed = offset_ + ld_ * (cols - 1) + rows;
      if (flag == 0) needed = std::max(needed, storage_->capacity() + storage_->capacity() / 2);
      if (storage_->grow(needed, offset_ + used_span())) return true;
      ld_ = old_ld;
      return false;
    }
    return relayout(rows, rows_, cols_, rows, cols, nullptr);
  }

  /// Shape 0 x 0; the buffer is kept for reuse when this matrix is its only user.
  void clear() noexcept {
    if (!storage_.unique()) storage_.reset();
    offset_ = rows_ = cols_ = ld_ = 0;
  }

  /// Deep copy: an own, contiguous buffer with other's shape and values.
  bool copy(const dense2D& other) noexcept {
    dense2D fresh;
    if (other.rows_ * other.cols_ != 0) {
      buffer_type* buffer = buffer_type::create(other.rows_ * other.cols_);
      if (!buffer) return false;
      fresh.storage_ = buffer;
      fresh.ld_ = other.rows_;
      copy_block(other.data(), other.ld_, buffer->data(), other.rows_, other.rows_, other.cols_);
    } else {
      fresh.ld_ = other.rows_;
    }
    fresh.rows_ = other.rows_;
    fresh.cols_ = other.cols_;
    swap(fresh);
    return true;
  }

  /// Becomes a view of other's buffer with other's offset, shape and leading dimension.
  void shallow_copy(const dense2D& other) noexcept { *this = other; }

  /// Every entry in column order: shares the buffer when the columns are contiguous,
  /// copies them otherwise (an empty vector if that copy cannot be allocated).
  dense1D<T, 8> as_vector() const noexcept;

  void swap(dense2D& other) noexcept {
    std::swap(storage_, other.storage_);
    std::swap(offset_, other.offset_);
    std::swap(rows_, other.rows_);
    std::swap(cols_, other.cols_);
    std::swap(ld_, other.ld_);
  }

 private:
  // Entries from offset_ up to the end of the last column.
  size_type used_span() const noexcept { return cols_ == 0 ? 0 : ld_ * (cols_ - 1) + rows_; }

  bool fits_in_place(size_type rows, size_type cols) const noexcept {
    if (rows * cols == 0) return !storage_ || storage_.unique() || (rows <= rows_ && cols <= cols_);
    if (!storage_.unique() || rows > ld_) return false;
    const size_type capacity = storage_->capacity();
    if (offset_ + rows > capacity) return false;
    return cols - 1 <= (capacity - offset_ - rows) / ld_;  // offset + ld (cols - 1) + rows <= capacity
  }

  // Moves to a new buffer of leading dimension ld (at least room_rows) with room for
  // room_cols columns, giving the matrix the shape rows x cols: the entries of the
  // current shape that lie inside it are kept, the others get *fill (when given).
  bool relayout(size_type ld, size_type rows, size_type cols, size_type room_rows, size_type room_cols,
                const T* fill) noexcept {
    if (ld < room_rows) ld = room_rows;
    buffer_type* buffer = buffer_type::create(ld * room_cols);
    if (!buffer) return false;
    const size_type kept_rows = std::min(rows, rows_), kept_cols = std::min(cols, cols_);
    if (kept_rows && kept_cols) copy_block(data(), ld_, buffer->data(), ld, kept_rows, kept_cols);
    if (fill) {
      T* base = buffer->data();
      for (size_type j = 0; j < cols; ++j) {
        const size_type from = j < kept_cols ? kept_rows : 0;
        std::fill(base + j * ld + from, base + j * ld + rows, *fill);
      }
    }
    storage_ = buffer;
    offset_ = 0;
    ld_ = ld;
    rows_ = rows;
    cols_ = cols;
    return true;
  }

  static void copy_block(const T* from, size_type from_ld, T* to, size_type to_ld, size_type rows,
                         size_type cols) noexcept {
    if (from_ld == rows && to_ld == rows) {
      std::memcpy(static_cast<void*>(to), from, rows * cols * sizeof(T));
      return;
    }
    for (size_type j = 0; j < cols; ++j)
      std::memcpy(static_cast<void*>(to + j * to_ld), from + j * from_ld, rows * sizeof(T));
  }

  Ptr<buffer_type> storage_;
  size_type offset_ = 0;
  size_type rows_ = 0;
  size_type cols_ = 0;
  size_type ld_ = 0;
};

/// Vector on shared storage (see the file comment). A is the growth unit: push_back
/// grows the room by doubling, never below A entries.
template <class T, unsigned A>
class dense1D {
 public:
  using value_type = T;
  using size_type = std::size_t;
  using buffer_type = vector_num<T, 8>;

  dense1D() noexcept = default;
  /// n value-initialised entries; empty if memory runs out.
  explicit dense1D(size_type n) noexcept { resize(n, T()); }
  /// n entries equal to value; empty if memory runs out.
  dense1D(size_type n, const T& value) noexcept { resize(n, value); }
  dense1D(std::initializer_list<T> values) noexcept {
    if (resize(values.size(), T())) std::copy(values.begin(), values.end(), data());
  }
  dense1D(const dense1D&) noexcept = default;
  dense1D(dense1D&& other) noexcept { swap(other); }
  dense1D& operator=(const dense1D&) noexcept = default;
  dense1D& operator=(dense1D&& other) noexcept {
    if (this != &other) {
      dense1D dropped;
      dropped.swap(other);
      swap(dropped);
    }
    return *this;
  }
  ~dense1D() = default;

  /// A view of n values that the caller owns (see dense2D::wrap).
  static dense1D wrap(T* data, size_type n) noexcept {
    dense1D view;
    if (n == 0 && !data) return view;
    buffer_type* buffer = buffer_type::create_external(data, n);
    if (!buffer) return view;
    view.storage_ = buffer;
    view.size_ = n;
    return view;
  }

  /// Wraps entries [offset, offset + size) of an existing buffer (used by as_vector).
  dense1D(const Ptr<buffer_type>& storage, size_type offset, size_type size) noexcept
      : storage_(storage), size_(size), offset_(offset) {}

  size_type size() const noexcept { return size_; }
  size_type offset() const noexcept { return offset_; }
  bool empty() const noexcept { return size_ == 0; }
  /// Entries this vector can hold without moving to a new buffer.
  size_type capacity() const noexcept { return storage_ ? storage_->capacity() - offset_ : 0; }
  T* data() noexcept { return storage_ ? storage_->data() + offset_ : nullptr; }
  const T* data() const noexcept { return storage_ ? storage_->data() + offset_ : nullptr; }
  T& operator[](size_type i) noexcept { return storage_->data()[offset_ + i]; }
  const T& operator[](size_type i) const noexcept { return storage_->data()[offset_ + i]; }
  T* begin() noexcept { return data(); }
  T* end() noexcept { return data() + size_; }
  const T* begin() const noexcept { return data(); }
  const T* end() const noexcept { return data() + size_; }
  const Ptr<buffer_type>& storage() const noexcept { return storage_; }

  /// Appends value; false (nothing changed) when memory runs out.
  bool push_back(const T& value) noexcept {
    if (!owns_room(size_ + 1)) {
      size_type room = size_ < A ? A : 2 * size_;
      if (!grow(room)) return false;
    }
    data()[size_++] = value;
    return true;
  }

  bool resize(size_type n) noexcept { return resize(n, T()); }
  /// New size; entries kept, new entries equal to fill.
  bool resize(size_type n, const T& fill) noexcept {
    if (n > size_) {
      if (!owns_room(n) && !grow(n)) return false;
      std::fill(data() + size_, data() + n, fill);
    }
    size_ = n;
    return true;
  }
  /// Room for n entries (at least the current size), contents kept, so that growing up
  /// to n cannot fail; a vector that shares its buffer moves to one of its own. flag 0
  /// grows by half the room at least, any other value reserves exactly n (the library
  /// passes 1).
  bool reserve(size_type n, int flag) noexcept {
    if (n < size_) n = size_;  // a shared vector detaches with all its entries
    if (owns_room(n)) return true;
    if (flag == 0) n = std::max(n, capacity() + capacity() / 2);
    return grow(n);
  }
  /// Size 0; the buffer is kept for reuse when this vector is its only user.
  void clear() noexcept {
    if (!storage_.unique()) {
      storage_.reset();
      offset_ = 0;
    }
    size_ = 0;
  }
  /// Deep copy into an own buffer.
  bool copy(const dense1D& other) noexcept {
    dense1D fresh;
    if (other.size_) {
      buffer_type* buffer = buffer_type::create(other.size_);
      if (!buffer) return false;
      fresh.storage_ = buffer;
      std::memcpy(static_cast<void*>(buffer->data()), other.data(), other.size_ * sizeof(T));
      fresh.size_ = other.size_;
    }
    swap(fresh);
    return true;
  }
  void shallow_copy(const dense1D& other) noexcept { *this = other; }

  void swap(dense1D& other) noexcept {
    std::swap(storage_, other.storage_);
    std::swap(size_, other.size_);
    std::swap(offset_, other.offset_);
  }

 private:
  bool owns_room(size_type n) const noexcept {
    return n == 0 || (storage_.unique() && offset_ <= storage_->capacity() && n <= storage_->capacity() - offset_);
  }

  // Room for n entries in a buffer this vector owns alone.
  bool grow(size_type n) noexcept {
    if (storage_.unique()) {
      if (n > std::numeric_limits<size_type>::max() - offset_) return false;
      return storage_->grow(offset_ + n, offset_ + size_);
    }
    buffer_type* buffer = buffer_type::create(n);
    if (!buffer) return false;
    if (size_) std::memcpy(static_cast<void*>(buffer->data()), data(), size_ * sizeof(T));
    storage_ = buffer;
    offset_ = 0;
    return true;
  }

  Ptr<buffer_type> storage_;
  size_type size_ = 0;
  size_type offset_ = 0;
};

template <class T>
dense1D<T, 8> dense2D<T>::as_vector() const noexcept {
  const size_type n = rows_ * cols_;
  if (n == 0) return dense1D<T, 8>();
  if (ld_ == rows_ || cols_ == 1) return dense1D<T, 8>(storage_, offset_, n);
  dense1D<T, 8> entries;
  if (!entries.resize(n)) return entries;
  copy_block(data(), ld_, entries.data(), rows_, rows_, cols_);
  return entries;
}

/// N values: a point, a direction or an axis. vector_fixed<double, 3> v(x, y, z); v[i].
template <class T, unsigned N>
struct vector_fixed {
  T values[N];

  vector_fixed() noexcept : values{} {}
  template <class... U, class = typename std::enable_if<sizeof...(U) == N && (N > 0)>::type>
  vector_fixed(U... components) noexcept : values{static_cast<T>(components)...} {}

  T& operator[](unsigned i) noexcept { return values[i]; }
  const T& operator[](unsigned i) const noexcept { return values[i]; }
  T* data() noexcept { return values; }
  const T* data() const noexcept { return values; }
  static constexpr unsigned size() noexcept { return N; }
};

/// Symmetric N x N matrix in packed upper storage, column by column:
/// for N = 3 the order is a11, a12, a22, a13, a23, a33.
template <class T, unsigned N>
struct symmetric_fixed {
  static constexpr unsigned packed_size = N * (N + 1) / 2;
  T values[packed_size];

  symmetric_fixed() noexcept : values{} {}
  symmetric_fixed& operator=(const symmetric_fixed&) noexcept = default;
  symmetric_fixed(const symmetric_fixed&) noexcept = default;

  T& operator[](unsigned k) noexcept { return values[k]; }
  const T& operator[](unsigned k) const noexcept { return values[k]; }
  /// Entry (i, j) for any order of i and j.
  T& operator()(unsigned i, unsigned j) noexcept { return values[index(i, j)]; }
  const T& operator()(unsigned i, unsigned j) const noexcept { return values[index(i, j)]; }
  T* data() noexcept { return values; }
  const T* data() const noexcept { return values; }

 private:
  static unsigned index(unsigned i, unsigned j) noexcept { return i <= j ? i + j * (j + 1) / 2 : j + i * (i + 1) / 2; }
};

}  // namespace zel
