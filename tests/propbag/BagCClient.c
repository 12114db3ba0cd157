/* A C client of IPropertyBagEdit: the vtable form of the public header must
   put every method in the slot the bag fills (Item is the fifth of six). */
#include <xkcombsd/PropertyBag.h>

HRESULT ItemThroughC(IPropertyBagEdit* bag, LPWSTR name, VARIANT* value) {
  return bag->lpVtbl->Item(bag, name, value);
}
