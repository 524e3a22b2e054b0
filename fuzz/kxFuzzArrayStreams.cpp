// Object streams of every shared-array type through kxBaseStream::LoadObject. The first
// byte picks a type name to put in front of the rest (or none: the rest is the whole
// stream). What loads must save back to the same element bytes, load again, and compare
// equal to its copies exactly when its scalars are finite.
#include "kxFuzz.h"

#include "kxBaseStream.h"
#include "kxPointer.h"
#include "kxTSharedArray.h"

#include <cmath>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace
{
using namespace kx;

template <typename T, typename ScalarType, int ComponentCount>
struct Layout
{
    typedef T Element;
    typedef ScalarType Scalar;
    static constexpr int Components = ComponentCount;
    static_assert(sizeof(T) == sizeof(ScalarType) * ComponentCount, "elements are stored as plain scalars");
};

template <typename L>
bool finiteScalars(const kxTSharedArray<typename L::Element>& array)
{
    if (std::is_integral<typename L::Scalar>::value || array.GetQuantity() == 0)
        return true;
    const auto* scalars = reinterpret_cast<const typename L::Scalar*>(array.GetData());
    for (size_t i = 0; i < size_t(array.GetQuantity()) * L::Components; ++i)
        if (!std::isfinite(double(scalars[i])))
            return false;
    return true;
}

/// The quantity word and the elements, which a save must reproduce byte for byte.
std::vector<unsigned char> tail(const std::vector<unsigned char>& stream, size_t end, size_t length)
{
    KX_FUZZ_CHECK(end <= stream.size() && length <= end, "%zu stream bytes, %zu read, %zu expected in the tail",
                  stream.size(), end, length);
    return std::vector<unsigned char>(stream.begin() + static_cast<std::ptrdiff_t>(end - length),
                                      stream.begin() + static_cast<std::ptrdiff_t>(end));
}

template <typename L>
void roundTrip(kxObject* object, const std::vector<unsigned char>& input, size_t consumed)
{
    typedef kxTSharedArray<typename L::Element> Array;
    const char* name = Array::TYPE.GetName();
    const Array& array = *static_cast<const Array*>(object);
    const int quantity = array.GetQuantity();
    KX_FUZZ_CHECK(quantity >= 0, "%s loaded with quantity %d", name, quantity);
    KX_FUZZ_CHECK(array.GetData() != nullptr, "%s loaded without data", name);
    const size_t length = 4 + size_t(quantity) * sizeof(typename L::Element);
    const std::vector<unsigned char> read = tail(input, consumed, length);

    kxBaseStream saved;
    saved.SaveObject(array);
    KX_FUZZ_CHECK(tail(saved.GetBuffer(), saved.GetBuffer().size(), length) == read,
                  "%s of %d elements saves other bytes than it loaded", name, quantity);

    kxBaseStream again;
    again.SetBuffer(saved.GetBuffer());
    kxPointer<kxObject> reloaded = again.LoadObject();
    KX_FUZZ_CHECK(reloaded && reloaded->GetType().IsExactly(Array::TYPE), "a saved %s does not load", name);
    KX_FUZZ_CHECK(again.GetRemaining() == 0, "a saved %s leaves %zu bytes unread", name, again.GetRemaining());

    const bool finite = finiteScalars<L>(array);
    KX_FUZZ_CHECK(reloaded->Equals(&array) == finite && array.Equals(reloaded) == finite,
                  "%s: a reloaded copy compares %s with finite scalars %s", name,
                  array.Equals(reloaded) ? "equal" : "unequal", finite ? "everywhere" : "not everywhere");

    kxRttiInterface* clone = nullptr;
    KX_FUZZ_CHECK(array.Clone(clone) && clone, "%s does not clone", name);
    kxPointer<kxObject> owned = static_cast<kxObject*>(clone);
    KX_FUZZ_CHECK(clone->Equals(&array) == finite, "%s: a clone compares wrongly", name);

    Array copy(array);
    Array assigned;
    assigned = copy;
    KX_FUZZ_CHECK(copy.GetQuantity() == quantity && assigned.GetQuantity() == quantity, "%s copies lose elements",
                  name);
    KX_FUZZ_CHECK(assigned.Equals(&array) == finite, "%s: an assigned copy compares wrongly", name);
}

struct Type
{
    const char* name;
    const kxRtti* type;
    void (*check)(kxObject*, const std::vector<unsigned char>&, size_t);
    void (*registerFactory)();
};

template <typename L>
Type describe()
{
    typedef kxTSharedArray<typename L::Element> Array;
    return Type{Array::TYPE.GetName(), &Array::TYPE, &roundTrip<L>, &Array::RegisterFactory};
}

const std::vector<Type>& types()
{
    static const std::vector<Type> all = {
        describe<Layout<float, float, 1>>(),
        describe<Layout<double, double, 1>>(),
        describe<Layout<int, int, 1>>(),
        describe<Layout<Wm4::ColorRGBA, float, 4>>(),
        describe<Layout<Wm4::ColorRGB, float, 3>>(),
        describe<Layout<Wm4::Matrix2<float>, float, 4>>(),
        describe<Layout<Wm4::Matrix2<double>, double, 4>>(),
        describe<Layout<Wm4::Matrix3<float>, float, 9>>(),
        describe<Layout<Wm4::Matrix3<double>, double, 9>>(),
        describe<Layout<Wm4::Matrix4<float>, float, 16>>(),
        describe<Layout<Wm4::Matrix4<double>, double, 16>>(),
        describe<Layout<Wm4::Plane3<float>, float, 4>>(),
        describe<Layout<Wm4::Plane3<double>, double, 4>>(),
        describe<Layout<Wm4::Quaternion<float>, float, 4>>(),
        describe<Layout<Wm4::Quaternion<double>, double, 4>>(),
        describe<Layout<Wm4::Vector3<float>, float, 3>>(),
        describe<Layout<Wm4::Vector3<double>, double, 3>>(),
    };
    return all;
}

bool registerFactories()
{
    for (const Type& t : types())
        t.registerFactory();
    return true;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool registered = registerFactories();
    (void)registered;
    kxfuzz::Input in(data, size);
    const size_t selector = in.byte() % (types().size() + 1);
    kxBaseStream stream;
    if (selector < types().size())
        stream.writeString(types()[selector].name);
    std::vector<unsigned char> bytes = stream.GetBuffer();
    bytes.insert(bytes.end(), in.rest(), in.rest() + in.remaining());
    stream.SetBuffer(bytes);

    kxPointer<kxObject> object = stream.LoadObject();
    if (!object)
        return 0;
    for (const Type& t : types())
        if (object->GetType().IsExactly(*t.type))
        {
            t.check(object, bytes, stream.GetPosition());
            return 0;
        }
    KX_FUZZ_CHECK(false, "LoadObject made a %s", object->GetType().GetName());
    return 0;
}
