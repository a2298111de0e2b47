/* The C interface between quillmark and native plugin libraries, ABI revision 1.
 *
 * A plugin is a shared library exporting quillmark_plugin_init. While that call runs, the plugin
 * fills the metadata record (its ID first: kernels are checked against the namespace read at
 * the moment they are registered) and calls host->register_kernel once per kernel. Every record
 * starts with struct_size, set by the side that fills it to its own size; readers accept any size
 * at least the minimum, so records may only grow at their end. Strings are (pointer, length)
 * pairs: {NULL, 0} is the empty string, a non-zero length with a NULL pointer is malformed.
 *
 * Lifetimes: the host, metadata and error-capture records passed to quillmark_plugin_init are
 * valid only during that call; the quillmark_kernel_spec record and its operand array only during the
 * register_kernel call (the host copies what it keeps). The kernel callback and its user data
 * must stay valid while the library is loaded; the host keeps the library loaded for as long as
 * any catalogue can call its kernels. The invocation record, its operand entries and buffer
 * descriptors live for one callback only.
 *
 * Threading: quillmark_plugin_init runs on the thread that loads the plugin. A kernel callback
 * runs on the thread that executes the operation, without the Python interpreter lock, and may be
 * called from several threads at once for different executions.
 *
 * See docs/plugins.md for a walk-through. Compiles as C11 and as C++. */
#ifndef QUILLMARK_PLUGIN_H
#define QUILLMARK_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define QUILLMARK_ABI_REVISION 1u

/* ---- status codes (32-bit return values) ---- */
typedef int32_t quillmark_status;
enum {
    QUILLMARK_STATUS_OK = 0,
    QUILLMARK_STATUS_INVALID_ARGUMENT = 1,
    QUILLMARK_STATUS_UNSUPPORTED = 2,
    QUILLMARK_STATUS_RUNTIME_ERROR = 3,
    QUILLMARK_STATUS_INTERNAL_ERROR = 4,
    /* Any value outside 0..4 is reported under this name. */
    QUILLMARK_STATUS_UNKNOWN = 5
};

/* ---- operand declaration codes ---- */
enum { /* access */
    QUILLMARK_ACCESS_READ = 1,
    QUILLMARK_ACCESS_WRITE = 2,
    QUILLMARK_ACCESS_READ_WRITE = 3
};
enum { /* operand kind */
    QUILLMARK_OPERAND_SCALAR = 1,
    QUILLMARK_OPERAND_VECTOR = 2,
    QUILLMARK_OPERAND_MATRIX = 3,
    QUILLMARK_OPERAND_LU = 4,
    QUILLMARK_OPERAND_EIGEN = 5
};
enum { /* location */
    QUILLMARK_LOCATION_PAGEABLE_HOST = 1,
    QUILLMARK_LOCATION_PINNED_HOST = 2,
    QUILLMARK_LOCATION_CUDA_DEVICE = 3
};
enum { /* scalar type; 7 is deliberately unused */
    QUILLMARK_SCALAR_FLOAT32 = 1,
    QUILLMARK_SCALAR_FLOAT64 = 2,
    QUILLMARK_SCALAR_INT32 = 3,
    QUILLMARK_SCALAR_INT64 = 4,
    QUILLMARK_SCALAR_COMPLEX64 = 5,
    QUILLMARK_SCALAR_COMPLEX128 = 6,
    QUILLMARK_SCALAR_COMPLEX_INT32 = 8,
    QUILLMARK_SCALAR_COMPLEX_INT64 = 9,
    QUILLMARK_SCALAR_FLOAT16 = 10,
    QUILLMARK_SCALAR_UINT32 = 11,
    QUILLMARK_SCALAR_UINT64 = 12,
    QUILLMARK_SCALAR_BFLOAT16 = 13,
    QUILLMARK_SCALAR_COMPLEX32 = 14
};
enum { /* complex layout */
    QUILLMARK_COMPLEX_LAYOUT_NONE = 1,
    QUILLMARK_COMPLEX_LAYOUT_SPLIT = 2,
    QUILLMARK_COMPLEX_LAYOUT_INTERLEAVED = 3
};
enum { /* matrix layout */
    QUILLMARK_MATRIX_LAYOUT_NONE = 0,
    QUILLMARK_MATRIX_LAYOUT_ROW_MAJOR = 1,
    QUILLMARK_MATRIX_LAYOUT_COLUMN_MAJOR = 2
};
enum { /* backend */
    QUILLMARK_BACKEND_CPU_SCALAR = 1,
    QUILLMARK_BACKEND_CPU_SIMD = 2,
    QUILLMARK_BACKEND_CUDA = 3
};
enum { /* storage buffer role */
    QUILLMARK_BUFFER_DATA = 1,       /* real data, or interleaved complex data */
    QUILLMARK_BUFFER_REAL = 2,       /* real plane of split complex data */
    QUILLMARK_BUFFER_IMAGINARY = 3,  /* imaginary plane of split complex data */
    QUILLMARK_BUFFER_LU_PIVOTS = 4,  /* int64, one-based */
    QUILLMARK_BUFFER_LU_FACTORS = 5, /* packed n x n factors, column-major */
    QUILLMARK_BUFFER_LU_SWAP_COUNT = 6, /* one int64 */
    QUILLMARK_BUFFER_EIGENVALUES = 7,
    QUILLMARK_BUFFER_EIGENVECTORS = 8
};

/* ---- records ---- */

typedef struct quillmark_string {
    const char* data;
    uint64_t size;
} quillmark_string;

typedef struct quillmark_operation_id {
    uint32_t struct_size; /* >= 32 */
    uint32_t reserved0;
    quillmark_string name; /* "<plugin ID>.<name>" */
    uint32_t major;
    uint32_t reserved1;
} quillmark_operation_id;

/* One operand of a kernel. Kernel operand arrays are read at a fixed stride of 36 bytes, so a
 * plugin built against a grown record must still pack its array at 36 bytes. */
typedef struct quillmark_backend_operand {
    uint32_t struct_size;    /* >= 36 */
    uint32_t role_index;     /* position among the operation's roles, inputs first */
    uint32_t access;         /* QUILLMARK_ACCESS_* */
    uint32_t kind;           /* QUILLMARK_OPERAND_* */
    uint32_t location;       /* QUILLMARK_LOCATION_* */
    uint32_t storage_type;   /* QUILLMARK_SCALAR_* */
    uint32_t complex_layout; /* QUILLMARK_COMPLEX_LAYOUT_* */
    uint32_t matrix_layout;  /* QUILLMARK_MATRIX_LAYOUT_*: NONE for scalars and vectors, row- or column-major
                                for matrices; NONE for LU and eigen operands means column-major */
    uint32_t compute_type;   /* QUILLMARK_SCALAR_* */
} quillmark_backend_operand;

/* Storage buffer of one bound operand, as handed to a kernel. */
typedef struct quillmark_buffer_descriptor {
    uint32_t struct_size; /* 48 */
    uint32_t role;        /* QUILLMARK_BUFFER_* */
    uint64_t element_count;
    void* data;           /* NULL only when element_count is 0 */
    /* {rows, cols} for matrix-shaped buffers (the factors, eigenvectors and matrix data), {n, 0}
     * for sequences (vectors, pivots, eigenvalues), {0, 0} for single values. */
    uint64_t shape[2];
    uint64_t scalar_type; /* QUILLMARK_SCALAR_*; split planes carry their component type */
} quillmark_buffer_descriptor;

/* One bound operand as handed to a kernel, in the order of the kernel's operand array. The
 * declaration is laid out exactly as the operand record the plugin registered (declaration_size
 * is 36), followed by 12 reserved zero bytes. */
typedef struct quillmark_operand_entry {
    uint32_t struct_size;      /* 72 */
    uint32_t declaration_size; /* 36 */
    quillmark_backend_operand declaration;
    uint8_t reserved[12];
    const quillmark_buffer_descriptor* buffers;
    uint64_t buffer_count; /* 1; 2 for split complex data, complex scalars and eigen; 3 for LU */
} quillmark_operand_entry;

typedef struct quillmark_kernel_invocation {
    uint32_t struct_size; /* 40 */
    uint32_t backend;     /* QUILLMARK_BACKEND_* of the kernel */
    int32_t cuda_device;  /* -1: only CPU kernels run */
    uint32_t reserved;
    void* stream;         /* NULL */
    const quillmark_operand_entry* operands;
    uint64_t operand_count;
} quillmark_kernel_invocation;

/* Passed to quillmark_plugin_init and to every kernel call: set_message stores a message that the
 * host appends to the error it raises for a non-OK status. The text is copied. */
typedef void (*quillmark_set_message_fn)(void* capture_context, quillmark_string message);
typedef struct quillmark_error_capture {
    uint64_t struct_size; /* 24 */
    void* capture_context;
    quillmark_set_message_fn set_message;
} quillmark_error_capture;

typedef quillmark_status (*quillmark_kernel_fn)(void* user_data, const quillmark_kernel_invocation* invocation,
                                                const quillmark_error_capture* error);

typedef struct quillmark_kernel_spec {
    uint32_t struct_size; /* >= 80 */
    uint32_t reserved0;
    quillmark_operation_id operation;
    uint32_t backend; /* QUILLMARK_BACKEND_* */
    uint32_t reserved1;
    const quillmark_backend_operand* operands; /* in role order */
    uint64_t operand_count;
    quillmark_kernel_fn kernel;
    void* user_data;
} quillmark_kernel_spec;

/* Returns non-OK when the host refuses the kernel; the reason is also stored as the message of
 * the capture record. A plugin that ignores a refusal and returns OK is refused as a whole. */
typedef quillmark_status (*quillmark_register_kernel_fn)(void* host_context, const quillmark_kernel_spec* spec);

typedef struct quillmark_host {
    uint32_t struct_size;  /* 24 */
    uint32_t abi_revision; /* QUILLMARK_ABI_REVISION */
    void* host_context;
    quillmark_register_kernel_fn register_kernel;
} quillmark_host;

/* Preset by the host: struct_size 64, everything else zero. */
typedef struct quillmark_plugin_metadata {
    uint32_t struct_size;  /* must stay >= 64 */
    uint32_t abi_revision; /* must be QUILLMARK_ABI_REVISION */
    quillmark_string plugin_id;      /* the namespace of the plugin's operations, e.g. "example" */
    quillmark_string plugin_version; /* non-empty */
    uint32_t cuda_runtime_min;       /* 0: none */
    uint32_t cuda_runtime_max;       /* 0: none */
    quillmark_string description;    /* one line shown by describe; may be empty */
} quillmark_plugin_metadata;

typedef quillmark_status (*quillmark_plugin_init_fn)(const quillmark_host* host, quillmark_plugin_metadata* metadata,
                                                     const quillmark_error_capture* error);

#if defined(_WIN32)
#define QUILLMARK_PLUGIN_EXPORT __declspec(dllexport)
#else
#define QUILLMARK_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

/* The one symbol a plugin exports. */
QUILLMARK_PLUGIN_EXPORT quillmark_status quillmark_plugin_init(const quillmark_host* host,
                                                               quillmark_plugin_metadata* metadata,
                                                               const quillmark_error_capture* error);

/* ---- the layout every field has on x86-64 ---- */
#if defined(__x86_64__) || defined(_M_X64)
#ifdef __cplusplus
#define QUILLMARK_LAYOUT(cond) static_assert(cond, #cond)
#else
#define QUILLMARK_LAYOUT(cond) _Static_assert(cond, #cond)
#endif
QUILLMARK_LAYOUT(sizeof(quillmark_string) == 16);
QUILLMARK_LAYOUT(offsetof(quillmark_string, size) == 8);

QUILLMARK_LAYOUT(sizeof(quillmark_operation_id) == 32);
QUILLMARK_LAYOUT(offsetof(quillmark_operation_id, name) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_operation_id, major) == 24);

QUILLMARK_LAYOUT(sizeof(quillmark_backend_operand) == 36);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, role_index) == 4);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, access) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, kind) == 12);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, location) == 16);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, storage_type) == 20);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, complex_layout) == 24);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, matrix_layout) == 28);
QUILLMARK_LAYOUT(offsetof(quillmark_backend_operand, compute_type) == 32);

QUILLMARK_LAYOUT(sizeof(quillmark_buffer_descriptor) == 48);
QUILLMARK_LAYOUT(offsetof(quillmark_buffer_descriptor, role) == 4);
QUILLMARK_LAYOUT(offsetof(quillmark_buffer_descriptor, element_count) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_buffer_descriptor, data) == 16);
QUILLMARK_LAYOUT(offsetof(quillmark_buffer_descriptor, shape) == 24);
QUILLMARK_LAYOUT(offsetof(quillmark_buffer_descriptor, scalar_type) == 40);

QUILLMARK_LAYOUT(sizeof(quillmark_operand_entry) == 72);
QUILLMARK_LAYOUT(offsetof(quillmark_operand_entry, declaration_size) == 4);
QUILLMARK_LAYOUT(offsetof(quillmark_operand_entry, declaration) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_operand_entry, reserved) == 44);
QUILLMARK_LAYOUT(offsetof(quillmark_operand_entry, buffers) == 56);
QUILLMARK_LAYOUT(offsetof(quillmark_operand_entry, buffer_count) == 64);

QUILLMARK_LAYOUT(sizeof(quillmark_kernel_invocation) == 40);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_invocation, backend) == 4);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_invocation, cuda_device) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_invocation, reserved) == 12);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_invocation, stream) == 16);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_invocation, operands) == 24);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_invocation, operand_count) == 32);

QUILLMARK_LAYOUT(sizeof(quillmark_error_capture) == 24);
QUILLMARK_LAYOUT(offsetof(quillmark_error_capture, capture_context) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_error_capture, set_message) == 16);

QUILLMARK_LAYOUT(sizeof(quillmark_kernel_spec) == 80);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_spec, operation) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_spec, backend) == 40);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_spec, operands) == 48);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_spec, operand_count) == 56);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_spec, kernel) == 64);
QUILLMARK_LAYOUT(offsetof(quillmark_kernel_spec, user_data) == 72);

QUILLMARK_LAYOUT(sizeof(quillmark_host) == 24);
QUILLMARK_LAYOUT(offsetof(quillmark_host, abi_revision) == 4);
QUILLMARK_LAYOUT(offsetof(quillmark_host, host_context) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_host, register_kernel) == 16);

QUILLMARK_LAYOUT(sizeof(quillmark_plugin_metadata) == 64);
QUILLMARK_LAYOUT(offsetof(quillmark_plugin_metadata, abi_revision) == 4);
QUILLMARK_LAYOUT(offsetof(quillmark_plugin_metadata, plugin_id) == 8);
QUILLMARK_LAYOUT(offsetof(quillmark_plugin_metadata, plugin_version) == 24);
QUILLMARK_LAYOUT(offsetof(quillmark_plugin_metadata, cuda_runtime_min) == 40);
QUILLMARK_LAYOUT(offsetof(quillmark_plugin_metadata, cuda_runtime_max) == 44);
QUILLMARK_LAYOUT(offsetof(quillmark_plugin_metadata, description) == 48);
#undef QUILLMARK_LAYOUT
#endif

#ifdef __cplusplus
}
#endif

#endif /* QUILLMARK_PLUGIN_H */
