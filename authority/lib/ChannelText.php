<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** Reads a channel request: "action&name=value&name=value", the login beside it. */
final class ChannelText
{
    private const REQUEST_KIND = '13';
    private const PARAMETER = 'action';

    /** Fields that come with the request, never in its text. */
    private const CREDENTIALS = ['login', 'passwd'];

    /** @param array<string, mixed> $server the server variables of the request */
    public static function fields(array $server, Origin $origin, string $text): Fields
    {
        self::require($origin->isEncrypted(), 'The channel is served over TLS only.');
        self::require(($server['REQUEST_METHOD'] ?? '') === 'POST', 'A channel request is a POST.');
        self::require(($server['HTTP_X_QUORVEX_REQUEST_KIND'] ?? '') === self::REQUEST_KIND, 'Unknown request kind.');
        self::require(($server['HTTP_X_QUORVEX_PARAMETER'] ?? '') === self::PARAMETER, 'Unknown parameter name.');
        self::require($text !== '', 'The request holds no text.');
        $credentials = ['login' => $server['PHP_AUTH_USER'] ?? '', 'passwd' => $server['PHP_AUTH_PW'] ?? ''];
        return new Fields(self::split($text) + $credentials, isComplete: true);
    }

    /**
     * The text has no escapes, so a "&" inside a value shows only as a piece
     * without "=", as a second field of one name or as a field that the action
     * does not know: all are refused (the last by Fields::finish), lest a value
     * is cut short or stands in for another field.
     *
     * @return array<string, string>
     */
    private static function split(string $text): array
    {
        $pieces = explode('&', $text);
        $fields = ['action' => array_shift($pieces)];
        foreach ($pieces as $piece) {
            self::require(str_contains($piece, '='), 'A field of the request text has no value.');
            [$name, $value] = explode('=', $piece, 2);
            self::require(!isset($fields[$name]), 'A field of the request text is given twice.');
            self::require(!in_array($name, self::CREDENTIALS, true), 'Credentials do not belong in the request text.');
            $fields[$name] = $value;
        }
        return $fields;
    }

    private static function require(bool $holds, string $otherwise): void
    {
        if (!$holds) {
            throw new MalformedRequest($otherwise);
        }
    }
}
