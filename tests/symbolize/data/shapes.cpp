// A C++ unit: mangled names in namespaces and classes, a template, and an
// inline member function inlined into its callers. No C++ runtime is used,
// so the program links as C.
namespace geo {

struct Shape {
  int w, h;
  int area() const { return w * h; }
  __attribute__((noinline)) int perimeter() const;
};

int Shape::perimeter() const { return 2 * (w + h); }

template <typename T>
__attribute__((noinline)) T sum(const T* values, int n) {
  T total = T();
  for (int i = 0; i < n; ++i) total += values[i];
  return total;
}

namespace {
Shape table[4] = {{1, 2}, {3, 4}, {5, 6}, {7, 8}};
}

}  // namespace geo

extern "C" int shapes_total(int n) {
  int areas[4];
  for (int i = 0; i < 4; ++i) areas[i] = geo::table[(i + n) & 3].area() + geo::table[i].perimeter();
  return geo::sum(areas, 4) + static_cast<int>(geo::sum<long>(reinterpret_cast<const long*>(areas), 2));
}
