"""Point location and interpolation: brute-force references and exactness on linear fields."""

import numpy as np
import pytest
from conftest import box, signed_volume_th4

import tessel3d as t3

A = t3.ABSENT


def barycentric_inside(coords, connect, p, tol=1e-12):
    """Elements whose barycentric coordinates of p are all >= -tol (brute force)."""
    q = coords[connect]
    v = signed_volume_th4(q)
    out = []
    for e in range(len(connect)):
        lam = []
        for f, (a, b, c) in enumerate(((1, 2, 3), (2, 0, 3), (0, 1, 3), (2, 1, 0))):
            s = np.dot(q[e, a] - p, np.cross(q[e, b] - p, q[e, c] - p))
            lam.append(-s / v[e])
        if min(lam) >= -tol:
            out.append(e)
    return out


def test_located_element_holds_the_point():
    coords, connect = box("TH4", (3, 3, 3), jitter=0.2)
    rng = np.random.default_rng(5)
    points = rng.uniform(0.01, 0.99, (40, 3))
    locator = t3.Locator(coords, connect)
    found = locator.find_all(points)
    for p, e in zip(points, found):
        assert e in barycentric_inside(coords, connect, p)
        assert locator.find(p) == e
    assert t3.get_element_containing_point(coords, connect, points[0]) == found[0]


def test_points_outside_are_not_located():
    coords, connect = box("TH4", (2, 2, 2))
    assert t3.get_element_containing_point(coords, connect, (1.5, 0.5, 0.5)) is None
    found = t3.Locator(coords, connect).find_all([[2, 2, 2], [-1, 0.5, 0.5]])
    assert (found == A).all()


def test_find_all_gives_what_find_gives_for_each_point():
    # one call for all the points, searched in an order of their own: inside, on nodes,
    # just outside, far outside and not finite, in random order
    coords, connect = box("TH4", (4, 4, 4), jitter=0.2)
    rng = np.random.default_rng(8)
    points = np.concatenate([rng.uniform(0, 1, (60, 3)), coords[::9], rng.uniform(1, 1.001, (10, 3)),
                             rng.uniform(-2, 3, (20, 3)), [[np.nan, 0.5, 0.5], [0.5, np.inf, 0.5]]])
    rng.shuffle(points)
    locator = t3.Locator(coords, connect)
    for tolerance in (0.0, 1e-3):
        one_by_one = [locator.find(p, tolerance) for p in points]
        found = locator.find_all(points, tolerance)
        assert found.dtype == np.uint32 and found.shape == (len(points),)
        assert found.tolist() == [A if e is None else e for e in one_by_one]
    assert locator.find_all(np.zeros((0, 3))).shape == (0,)
    assert locator.find_all([]).shape == (0,)


def test_find_all_errors():
    coords, connect = box("TH4", (2, 2, 2))
    for strict, status in ((True, -7), (False, -1)):
        with pytest.raises(t3.Error) as caught:
            t3.Locator(coords, connect, strict=strict).find_all(np.zeros((4, 2)))
        assert caught.value.status == status and caught.value.argument == "points"
        assert "(k, 3)" in str(caught.value) and "(4, 2)" in str(caught.value)
        with pytest.raises(t3.Error) as caught:
            t3.Locator(coords, connect, strict=strict).find((0.5, 0.5, 0.5), tolerance=np.nan)
        assert caught.value.argument == "tolerance" and "finite" in str(caught.value)
    inverted = connect.copy()
    t3.flip(inverted, t3.TH4)
    with pytest.raises(t3.Error) as caught:
        t3.Locator(coords, inverted, strict=True).find_all([[0.5, 0.5, 0.5], [0.2, 0.2, 0.2]])
    assert caught.value.status == -1 and "inverted or flat" in str(caught.value)
    # inverted elements hold no point for the search that cannot miss
    assert (t3.Locator(coords, inverted).find_all([[0.5, 0.5, 0.5], [0.2, 0.2, 0.2]]) == A).all()
    with pytest.raises(t3.Error) as caught:
        t3.Locator(coords, connect[:, :3])
    assert caught.value.argument == "connect"
    wedges = box("W6", (1, 1, 1))
    for strict in (True, False):
        locator = t3.Locator(*wedges, type=t3.H8, neighbors=np.full(wedges[1].shape, A, dtype=np.uint32),
                             strict=strict)
        assert (locator.find_all([[0.5, 0.5, 0.5], [0.1, 0.1, 0.1]]) == A).all()


def test_tolerance_accepts_points_just_outside():
    coords, connect = box("TH4", (1, 1, 1))
    p = (0.5, 0.5, -1e-4)
    assert t3.get_element_containing_point(coords, connect, p) is None
    assert t3.get_element_containing_point(coords, connect, p, tolerance=1e-2) is not None


def test_inverted_element_stops_the_walk():
    coords, connect = box("TH4", (2, 2, 2))
    inverted = connect.copy()
    t3.flip(inverted, t3.TH4)
    with pytest.raises(t3.Error) as caught:
        t3.get_element_containing_point(coords, inverted, (0.5, 0.5, 0.5), strict=True)
    assert caught.value.status == -1 and "inverted or flat" in str(caught.value)


def test_other_element_types_are_not_searched():
    # neighbors must have the rows of connect and the face count of the type: a 6-column
    # connectivity with 6-column neighbours passes as H8, and is reported as not located
    coords, connect = box("W6", (1, 1, 1))
    neighbors = np.full(connect.shape, A, dtype=np.uint32)
    assert t3.get_element_containing_point(coords, connect, (0.5, 0.5, 0.5), type=t3.H8,
                                           neighbors=neighbors, strict=True) is None
    hexa = box("H8", (1, 1, 1))
    with pytest.raises(t3.Error) as caught:  # 8 columns cannot match the 6 faces of an H8
        t3.get_element_containing_point(hexa[0], hexa[1], (0.5, 0.5, 0.5), type=t3.H8, strict=True)
    assert caught.value.status == -3


def test_interpolation_of_a_linear_field_is_exact():
    coords, connect = box("TH4", (3, 3, 3), jitter=0.15)
    rng = np.random.default_rng(2)
    inside = rng.uniform(0.05, 0.95, (30, 3))
    outside = np.array([[2.0, 0.5, 0.5]])
    allc = np.concatenate([coords, inside, outside])
    n = len(coords)

    def linear(x):
        return np.stack([1 + 2 * x[:, 0] - x[:, 1] + 3 * x[:, 2], x[:, 0] * 0.5], axis=1)
    field = np.zeros((len(allc), 2))
    field[:n] = linear(coords)
    nodes = np.arange(n, len(allc), dtype=np.uint32)
    strict = field.copy()
    result = t3.interpolate(allc, connect, field, nodes)
    assert result is field  # in place
    np.testing.assert_allclose(field[n:n + 30], linear(inside), atol=1e-9)
    # outside: the value at the closest point of the boundary, here (1, 0.5, 0.5)
    np.testing.assert_allclose(field[-1], linear(np.array([[1.0, 0.5, 0.5]]))[0], atol=1e-12)
    t3.interpolate(allc, connect, strict, nodes, strict=True)
    np.testing.assert_allclose(strict[n:n + 30], linear(inside), atol=1e-9)
    nearest = np.argmin(np.linalg.norm(coords - outside[0], axis=1))
    np.testing.assert_array_equal(strict[-1], strict[nearest])  # strict: the nearest node's values
    scalar = np.zeros(len(allc))
    scalar[:n] = linear(coords)[:, 0]
    t3.interpolate(allc, connect, scalar, nodes)
    np.testing.assert_allclose(scalar[n:n + 30], linear(inside)[:, 0], atol=1e-9)


def test_interpolation_errors():
    coords, connect = box("TH4", (1, 1, 1))
    for strict, field_status in ((True, -5), (False, -3)):
        with pytest.raises(t3.Error) as caught:
            t3.interpolate(coords, connect, np.zeros(len(coords) - 1), [0], strict=strict)
        assert caught.value.status == field_status and "interpolate: field (argument" in str(caught.value)
        with pytest.raises(t3.Error) as caught:
            t3.interpolate(coords, connect, np.zeros(len(coords)), [len(coords)], strict=strict)
        assert caught.value.argument == "nodes"
        with pytest.raises(t3.Error) as caught:
            t3.interpolate_metrics(coords, connect, np.zeros((len(coords), 5)), strict=strict)
        assert caught.value.argument == "metrics"
    assert t3.interpolate(coords, connect, np.zeros(len(coords)), []).shape == (len(coords),)


def test_metric_interpolation_of_equal_metrics_and_sizes():
    coords, connect = box("TH4", (2, 2, 2))
    allc = np.concatenate([coords, [[0.3, 0.4, 0.5]]])
    n = len(coords)
    metric = np.array([4.0, 1.0, 3.0, 0.0, 0.5, 2.0])  # M11 M12 M22 M13 M23 M33, positive definite
    metrics = np.zeros((n + 1, 6))
    metrics[:n] = metric
    t3.interpolate_metrics(allc, connect, metrics, [n])
    np.testing.assert_allclose(metrics[n], metric, rtol=1e-9)
    sizes = np.zeros(n + 1)
    sizes[:n] = 1 + coords[:, 0]  # linear sizes interpolate exactly
    t3.interpolate_metrics(allc, connect, sizes)
    assert sizes[n] == pytest.approx(1.3)
    kept = np.full(n + 1, 2.0)
    t3.interpolate_metrics(allc, connect, kept, keep_valid=True)
    assert kept[n] == 2.0
