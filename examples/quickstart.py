"""A first look at quillmark: run catalogue operations on NumPy arrays."""

import numpy as np

import quillmark

ctx = quillmark.Context()
info = quillmark.build_info()
print(f"quillmark {info['version']}, {info['cpu_simd']} engine, {ctx.thread_count} worker thread(s)")

rng = np.random.default_rng(7)
a = rng.standard_normal((4, 4))
b = rng.standard_normal((4, 3))

# NumPy-style functions: any array-like in, new arrays (or named tuples) out.
print("matmul matches NumPy:", np.allclose(quillmark.matmul(a, b), a @ b))
w, v = quillmark.eigh(a + a.T)
print("eigh eigenvalues:", np.round(w, 4))
sign, logabsdet = quillmark.slogdet(a)
print("slogdet:", float(sign), float(logabsdet))

# The same operation through a context, with explicit role bindings.
product = np.empty((4, 3))
ctx.execute("quillmark.matmul@1", {"Input0": a, "Input1": b, "Output0": product},
            {"Input0": "host", "Input1": "host", "Output0": "host"})
print("matmul matches NumPy:", np.allclose(product, a @ b))

# Factorise once, solve in place, read the log-determinant.
factor = quillmark.LUFactor(a, ctx)
rhs = rng.standard_normal(4)
x = rhs.copy()
factor.solve(x)
print("solve residual:", float(np.linalg.norm(a @ x - rhs)))
print("log det:", factor.logdet(), "NumPy:", complex(np.log(complex(np.linalg.det(a)))))

# Every operation publishes its numeric contract.
contract = quillmark.ContextBuilder().build().describe("quillmark.eigh@1")
print("eigh requirements:", [r["kind"] for r in contract["numerics"]["requirements"]])
print("eigh implementations:", [impl["numerics"]["algorithm"] for impl in contract["implementations"]][:2])
