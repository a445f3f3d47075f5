// Every function of the runtime's NIF API, defined as a trap, for the link
// check in CMakeLists.txt only: the NIF library's objects are linked against
// this with no symbol left undefined, so a symbol that neither the library,
// the C/C++ runtime nor the VM's NIF API provides fails the build instead of
// failing the load. Never loaded, never run.
//
// The definitions come from the runtime's own list of its API (the header
// erl_nif.h includes to declare it), so the stub is exactly that API, also
// after an upgrade of the runtime.
#include <erl_nif.h>

#include <cstdlib>

// The list carries allocation attributes, which a definition may not.
#undef ERL_NAPI_ATTR_WUR
#undef ERL_NAPI_ATTR_ALLOC_SIZE
#undef ERL_NAPI_ATTR_MALLOC_U
#undef ERL_NAPI_ATTR_MALLOC_US
#undef ERL_NAPI_ATTR_MALLOC_UD
#undef ERL_NAPI_ATTR_MALLOC_USD
#undef ERL_NAPI_ATTR_MALLOC_D
#define ERL_NAPI_ATTR_WUR
#define ERL_NAPI_ATTR_ALLOC_SIZE(SZPOS)
#define ERL_NAPI_ATTR_MALLOC_U
#define ERL_NAPI_ATTR_MALLOC_US(SZPOS)
#define ERL_NAPI_ATTR_MALLOC_UD(DTOR, PTRPOS)
#define ERL_NAPI_ATTR_MALLOC_USD(SZPOS, DTOR, PTRPOS)
#define ERL_NAPI_ATTR_MALLOC_D(DTOR, PTRPOS)

#pragma GCC diagnostic ignored "-Wunused-parameter"

// The list is read a second time: inside a namespace, so that the inline
// helpers it also holds do not clash with the copies erl_nif.h made; the
// functions, of C linkage, are the runtime's own names all the same.
namespace arbo_link_stub {
#define ERL_NIF_API_FUNC_DECL(RET_TYPE, NAME, ARGS) \
  extern "C" RET_TYPE NAME ARGS { std::abort(); }
#include <erl_nif_api_funcs.h>
#undef ERL_NIF_API_FUNC_DECL
}  // namespace arbo_link_stub
